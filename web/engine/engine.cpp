// What the page calls: one table open at a time, its rows, and the answer of a query. Texts are
// UTF-8; every answer is JSON, an object with "error" where something was refused, and lasts until
// the next call.
#include <emscripten.h>

#include <algorithm>
#include <memory>
#include <new>
#include <numeric>
#include <string>
#include <vector>

#include "cells.h"
#include "chart.h"
#include "sql.h"
#include "tables/facts/facts.h"
#include "tables/open/find.h"
#include "tables/open/journal.h"
#include "tables/open/open.h"
#include "tables/page/json.h"
#include "tables/page/refusal.h"
#include "tables/page/text.h"
#include "tables/value/plain.h"
#include "view.h"

namespace mira::page {
namespace {

using namespace tables;

constexpr std::size_t kPiece = 1U << 20;  // of an export
constexpr u32 kScattered = 8U << 20;      // bytes of records that it reads at a time, out of order

struct Export {
    struct Faulty {
        u32 row, record;
        Fault fault;
        const Column* column;
    };
    std::unique_ptr<CellReader> cells{};
    std::vector<Faulty> faulty{};  ///< not counted yet
    std::string lines{};           ///< of rows that lie all over the file, as they lie there
    std::vector<std::pair<u32, u32>> places{};  ///< from where to where in it, row by row
    std::size_t told = 0;                       ///< of these rows
    Faults faults{};
    u32 row = 0;
    u32 left = 0;  ///< deleted records that are left out
    std::string piece{};
};

/// All that the page has open.
struct Open {
    std::unique_ptr<Table> table{};
    std::unique_ptr<CellReader> cells{};
    View view{};
    Deleted deleted = Deleted::Include;
    Answer answer{};
    Export run{};
    std::string json{}, bytes{};
};
Open shown;

/// The JSON of work, or of the reason why there is none.
template <typename Work>
const char* answered(Work work) {
    try {
        shown.json = work();
    } catch (const std::bad_alloc&) {
        shown.json = R"({"error":"no memory left"})";
    } catch (const std::exception& e) {
        JsonObject error;
        error.text("error", e.what());
        shown.json = error.whole();
    }
    return shown.json.c_str();
}

const Column& columnAt(int number) {
    return shown.table->columns.at(static_cast<std::size_t>(number));
}

/// What a value of a column is for the page.
const char* showAs(const Column& column) {
    if (isOfNumbers(column)) return "number";
    switch (kindRow(column.kind).compared) {
        case Compared::Dates:
            return "date";
        case Compared::Logicals:
            return "logical";
        case Compared::Memos:
            return "memo";
        default:
            return "text";
    }
}

std::string columnsJson(const Table& table) {
    std::string list = "[";
    for (const Column& column : table.columns) {
        if (list.size() > 1) list += ',';
        JsonObject object;
        object.text("name", column.name);
        object.text("type", std::string(1, column.type));
        object.text("what", typeName(table, column));
        object.number("length", column.length);
        object.number("decimals", column.decimals);
        object.text("as", showAs(column));
        object.truth("nulls", column.mayBeNull());
        list += object.whole();
    }
    return list + "]";
}

std::string openedJson(const Table& table, Listing& listing) {
    const Facts facts = factsOf(table, &listing);
    JsonObject object;
    object.raw("facts", factsJson(table, facts));
    object.raw("columns", columnsJson(table));
    object.number("records", table.base->Header.RecordCount);
    object.text("page", pageName(*table.page.page));
    object.text("doubt",
                table.page.uncertain ? pageDoubt(table.page, "the list \"Code page\"") : "");
    object.text("memoFile", facts.hasMemos ? memoFileOf(table) : "");
    object.truth("memoMissing", facts.hasMemos && facts.memoFile.empty());
    return object.whole();
}

std::string openNamed(const std::string& path, const std::string& codePage) {
    shown = Open();
    Listing listing;
    if (hasJournal(path)) {
        refuse(path, ": a change of it was interrupted; `mira info ", path,
               "` puts it right first");
    }
    TableOptions options;
    options.codePage = codePage;
    shown.table = openTable(path, options, &listing);
    shown.cells = std::make_unique<CellReader>(*shown.table);
    shown.view.count = shown.table->base->Header.RecordCount;
    return openedJson(*shown.table, listing);
}

/// Reads the record of a row of the view.
void readRow(CellReader& cells, u32 row) {
    cells.record = shown.view.record(row);
    readRecord(*cells.table, cells.record);
}

std::string rowJson(u32 row) {
    readRow(*shown.cells, row);
    std::string json = textOf("{\"r\":", shown.cells->record + 1,
                              ",\"d\":", isDeleted(*shown.table) ? 1 : 0, ",\"c\":[");
    Value value;
    for (std::size_t i = 0; i < shown.table->columns.size(); ++i) {
        if (i != 0) json += ',';
        readCell(*shown.cells, shown.table->columns[i], value);
        putCell(json, value);
    }
    return json + "]}";
}

std::string rowsJson(u32 first, u32 count) {
    std::string json = "[";
    for (u32 row = first; row - first < count && row < shown.view.count; ++row) {
        if (row != first) json += ',';
        json += rowJson(row);
    }
    return json + "]";
}

std::string answerRows(u32 first, u32 count) {
    const Answer& answer = shown.answer;
    std::string json = "[";
    for (u32 row = first; row - first < count && row < answer.rows.count(); ++row) {
        json += textOf(row != first ? ",{" : "{", "\"r\":", row + 1, ",\"d\":0,\"c\":[");
        answer.rows.each(row, answer.columns.size(), [&](std::size_t i, const Value& value) {
            if (i != 0) json += ',';
            putCell(json, value);
        });
        json += "]}";
    }
    return json + "]";
}

template <typename Columns>
void putHeadings(std::string& csv, const Columns& columns) {
    for (const auto& column : columns) {
        if (&column != columns.data()) csv += ',';
        putCsvText(csv, column.name);
    }
    csv += '\n';
}

/// The next lines of the answer, after its headings when row is 0. {"size", "row": the next one}
std::string answerCsv(u32 row) {
    const Answer& answer = shown.answer;
    std::string& csv = shown.run.piece;
    csv.clear();
    if (row == 0) putHeadings(csv, answer.columns);
    for (; csv.size() < kPiece && row < answer.rows.count(); ++row) {
        answer.rows.each(row, answer.columns.size(), [&](std::size_t i, const Value& value) {
            if (i != 0) csv += ',';
            putCsv(csv, value, answer.columns[i].mayBeNull);
        });
        csv += '\n';
    }
    JsonObject object;
    object.number("size", csv.size());
    object.number("row", row);
    return object.whole();
}

std::string answerJson() {
    JsonObject object;
    object.number("rows", shown.answer.rows.count());
    object.truth("cut", shown.answer.cut);
    object.texts("notes", shown.answer.notes);
    std::string columns = "[";
    for (const Answer::Heading& heading : shown.answer.columns) {
        if (columns.size() > 1) columns += ',';
        JsonObject column;
        column.text("name", heading.name);
        column.text("as", heading.numbers ? "number" : "text");
        columns += column.whole();
    }
    object.raw("columns", columns + "]");
    return object.whole();
}

/// "path\tcode page" lines.
std::vector<SqlTable> tablesOf(std::string_view lines) {
    std::vector<SqlTable> tables;
    while (!lines.empty()) {
        const std::string_view line = lines.substr(0, lines.find('\n'));
        lines.remove_prefix(std::min(line.size() + 1, lines.size()));
        const std::size_t tab = line.find('\t');
        tables.push_back({std::string(line.substr(0, tab)), std::string(line.substr(tab + 1))});
    }
    return tables;
}

// ---------------------------------------------------------------------------------------------
// Export
// ---------------------------------------------------------------------------------------------

/// Appends the line of a row, unless its record is left out.
void putRow(Export& run, u32 row, std::string& csv) {
    readRow(*run.cells, row);
    if (isDeleted(*shown.table) && shown.deleted != Deleted::Only) {
        ++run.left;
        return;
    }
    Value value;
    for (const Column& column : shown.table->columns) {
        if (&column != shown.table->columns.data()) csv += ',';
        readCell(*run.cells, column, value);
        if (value.fault != Fault::None) {
            run.faulty.push_back({row, run.cells->record, value.fault, &column});
        }
        putCsv(csv, value, column.mayBeNull());
    }
    csv += '\n';
}

/// Counts faults in the order of the rows, whatever the one was in which they were read.
void countFaults(Export& run) {
    std::stable_sort(run.faulty.begin(), run.faulty.end(),
                     [](const auto& a, const auto& b) { return a.row < b.row; });
    for (const Export::Faulty& one : run.faulty) {
        countFault(run.faults, one.fault, one.record, *one.column);
    }
    run.faulty.clear();
}

/// Makes the lines of rows that lie all over the file, which is read from its start for each lot of
/// them.
void makeScattered(Export& run) {
    const u32 most = std::max(kScattered / shown.table->base->Header.RecordLength, 1000U);
    const u32 first = run.row;
    run.row = std::min(shown.view.count, first + most);
    std::vector<u32> rows(run.row - first);
    std::iota(rows.begin(), rows.end(), first);
    std::sort(rows.begin(), rows.end(),
              [](u32 a, u32 b) { return shown.view.record(a) < shown.view.record(b); });
    run.lines.clear();
    run.lines.reserve(kScattered + kScattered / 4);
    run.told = 0;
    run.places.resize(rows.size());
    for (const u32 row : rows) {
        const auto from = static_cast<u32>(run.lines.size());
        putRow(run, row, run.lines);
        run.places[row - first] = {from, static_cast<u32>(run.lines.size())};
    }
    countFaults(run);
}

/// The next row, or some of them.
void exportRow(Export& run) {
    if (shown.view.whole) {
        putRow(run, run.row++, run.piece);
        return countFaults(run);
    }
    if (run.told == run.places.size()) makeScattered(run);
    const auto [from, to] = run.places[run.told++];
    run.piece.append(run.lines, from, to - from);
}

bool isExported(const Export& run) {
    return run.row == shown.view.count && run.told == run.places.size();
}

/// The next piece; empty at the end.
void exportOn(Export& run) {
    run.piece.clear();
    if (run.row == 0 && !run.cells) {
        run.cells = std::make_unique<CellReader>(*shown.table);
        putHeadings(run.piece, shown.table->columns);
    }
    while (run.piece.size() < kPiece && !isExported(run)) exportRow(run);
    tellProgress(run.row, shown.view.count);
}

std::string exportedJson(const Export& run) {
    std::vector<std::string> notes;
    for (std::size_t i = 1; i < kFaults; ++i) {
        const FaultTally& tally = run.faults[i];
        if (tally.count != 0) notes.push_back(faultSentence(static_cast<Fault>(i), tally));
    }
    JsonObject object;
    object.number("rows", run.row - run.left);
    object.number("left", run.left);
    object.texts("notes", notes);
    return object.whole();
}

}  // namespace
}  // namespace mira::page

namespace tables = mira::tables;
using namespace mira::page;
using mira::u32;

extern "C" {

EMSCRIPTEN_KEEPALIVE const char* page_open(const char* path, const char* codePage) {
    return answered([&] { return openNamed(path, codePage); });
}

/// sort: a column, or -1. deleted: 0 skip, 1 include, 2 only. Ends the answer of a query.
EMSCRIPTEN_KEEPALIVE const char* page_view(const char* filter, const char* search, int sort,
                                           int descending, int deleted) {
    return answered([&] {
        const Wanted wanted{filter, search, sort, descending != 0,
                            static_cast<tables::Deleted>(deleted)};
        std::vector<std::string> notes;
        if (wanted.filter.empty()) shown.answer = Answer();  // else it may be refused and stay
        shown.view = viewOf(*shown.table, wanted, notes);
        shown.answer = Answer();
        shown.run = Export();
        shown.deleted = wanted.deleted;
        tables::JsonObject object;
        object.number("rows", shown.view.count);
        object.texts("notes", notes);
        return object.whole();
    });
}

EMSCRIPTEN_KEEPALIVE const char* page_rows(u32 first, u32 count) {
    return answered([&] { return rowsJson(first, count); });
}

EMSCRIPTEN_KEEPALIVE const char* page_chart(int column) {
    return answered([&] { return chartOf(*shown.table, shown.view, columnAt(column)); });
}

/// The whole value of a cell: {"kind": "null", "text" or a picture's, "size"}; the bytes, in UTF-8
/// those of a text, are at page_bytes().
EMSCRIPTEN_KEEPALIVE const char* page_cell(u32 row, int column) {
    return answered([&] {
        readRow(*shown.cells, row);
        tables::Value value;
        readCell(*shown.cells, columnAt(column), value);
        const bool binary = value.kind == tables::ValueKind::Bytes;
        shown.bytes.clear();
        if (binary) {
            shown.bytes = value.text;
        } else {
            putPlain(shown.bytes, value);
        }
        const std::string_view picture = binary ? pictureKind(shown.bytes) : std::string_view();
        tables::JsonObject object;
        object.text("kind", value.kind == tables::ValueKind::Null ? "null"
                            : !binary                             ? "text"
                            : picture.empty()                     ? "bytes"
                                                                  : picture);
        object.number("size", shown.bytes.size());
        object.text("fault",
                    value.fault == tables::Fault::None ? "" : faultSentence(value.fault, 1));
        return object.whole();
    });
}

EMSCRIPTEN_KEEPALIVE const char* page_bytes() { return shown.bytes.data(); }

/// How many of some records, from first on, are marked deleted: {"deleted": 3}.
EMSCRIPTEN_KEEPALIVE const char* page_deleted(u32 first, u32 count) {
    return answered([&] {
        mira::u64 deleted = 0;
        const u32 all = shown.table->base->Header.RecordCount;
        for (u32 record = first; record - first < count && record < all; ++record) {
            readRecord(*shown.table, record);
            if (isDeleted(*shown.table)) ++deleted;
        }
        tables::JsonObject object;
        object.number("deleted", deleted);
        return object.whole();
    });
}

EMSCRIPTEN_KEEPALIVE void page_export() { shown.run = Export(); }

/// {"size": bytes at page_piece()}; 0 at the end, with what there is to say.
EMSCRIPTEN_KEEPALIVE const char* page_next() {
    return answered([&] {
        exportOn(shown.run);
        if (shown.run.piece.empty()) return exportedJson(shown.run);
        tables::JsonObject object;
        object.number("size", shown.run.piece.size());
        return object.whole();
    });
}

EMSCRIPTEN_KEEPALIVE const char* page_piece() { return shown.run.piece.data(); }

/// lines: "path\tcode page" of every table. The answer stays until the next query.
EMSCRIPTEN_KEEPALIVE const char* page_query(const char* sql, const char* lines) {
    return answered([&] {
        shown.answer = Answer();
        shown.answer = answerOf(sql, tablesOf(lines));
        return answerJson();
    });
}

EMSCRIPTEN_KEEPALIVE const char* page_answer_rows(u32 first, u32 count) {
    return answered([&] { return answerRows(first, count); });
}

/// {"size": bytes at page_piece(), "row": for the next call}; size 0 at the end.
EMSCRIPTEN_KEEPALIVE const char* page_answer_csv(u32 row) {
    return answered([&] { return answerCsv(row); });
}
}
