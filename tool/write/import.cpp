// mira import: CSV into a new table or to the end of one that is there.
//
// A new table is made beside its place and moved there when it is whole. What is appended is
// checked first, all of it.
#include "write/import.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <optional>
#include <set>

#include "command/command.h"
#include "input/csvreader.h"
#include "input/mapping.h"
#include "input/notation.h"
#include "input/schema.h"
#include "select/opening.h"
#include "tables/change/append.h"
#include "tables/change/swap.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"
#include "tables/page/utf8.h"
#include "tables/store/store.h"
#include "terminal/message.h"
#include "write/change.h"
#include "write/newtable.h"

namespace mira::tool {
namespace {

namespace fs = std::filesystem;

struct Options {
    std::string csv, table;
    std::string like, schema;
    bool append = false;
    TableKind kind = TableKind::DBase3;
    u32 blockSize = 0;
    std::string codePage, csvCodePage, delimiter;
    std::string decimal, dates;  // how the file writes them
    bool strict = false, lenient = false;
    ChangeOptions change;  // with --force: replace an existing table
};

std::vector<std::string> readHeadings(CsvReader& csv) {
    CsvRow row;
    if (!csv.next(row)) refuse(csv.name(), ": empty; a line of headings is needed");
    std::vector<std::string> headings;
    for (const CsvCell& cell : row.cells) headings.emplace_back(trimmed(cell.text));
    return headings;
}

CsvOptions csvOptions(const Options& options) {
    CsvOptions csv;
    csv.codePage = options.csvCodePage;
    const bool tsv = sameText(fs::path(options.csv).extension().string(), ".tsv");
    if (!options.delimiter.empty()) csv.delimiter = delimiterOf(options.delimiter);
    if (tsv && options.delimiter.empty()) csv.delimiter = '\t';
    csv.tsv = tsv && csv.delimiter == '\t';
    return csv;
}

/// Whether a delimiter parts the first two lines into as many cells, more than one.
bool partsLines(CsvReader& csv, char delimiter) {
    try {
        csv.rewind(delimiter);
        const std::size_t cells = readHeadings(csv).size();
        CsvRow row;
        return cells > 1 && (!csv.next(row) || row.cells.size() == cells);
    } catch (const Refusal&) {
        return false;  // by this delimiter it is no CSV
    }
}

/// The headings; what is one column by commas may be several by another delimiter.
std::vector<std::string> findHeadings(CsvReader& csv, const Options& options) {
    std::vector<std::string> headings = readHeadings(csv);
    const CsvOptions format = csvOptions(options);
    if (headings.size() != 1 || !options.delimiter.empty() || format.tsv) return headings;
    char chosen = format.delimiter;
    if (partsLines(csv, ';')) {
        chosen = ';';
        note("{}: taken as parted by \";\"; -d says what parts it", csv.name());
    } else if (partsLines(csv, '\t')) {
        chosen = '\t';
        note("{}: taken as parted by tabs; -d says what parts it", csv.name());
    }
    csv.rewind(chosen);
    return readHeadings(csv);
}

// ---------------------------------------------------------------------------------------------
// Rows into records
// ---------------------------------------------------------------------------------------------

/// The way of all rows into a table.
struct Importer {
    Table& table;
    CsvReader& csv;
    Notation notation;
    Mapping mapping;
    u64 rows = 0, faults = 0;
    bool silent = false;     ///< what does not fit has been told
    bool isNew = false;      ///< counting columns of a new table keep the values that are given
    bool asWritten = false;  ///< numbers stay as they are written
    bool rounds = false;     ///< decimals that a field of digits has no room for
    std::vector<Encoded> values{};
    std::set<int> counted{};   ///< fields of counting columns that have values
    std::string plain{};       ///< a cell in the notation of exports
    Change* change = nullptr;  ///< of a table that is there; a new one is written as it is
};

void tellCell(Importer& importer, u64 line, const std::string& what) {
    ++importer.faults;
    if (!importer.silent) error("{}: line {}, {}", importer.csv.name(), line, what);
}

/// A counting column as one that takes any value.
Column uncounted(const Column& column) {
    Column plain = column;
    plain.type = 'I';
    plain.flags &= static_cast<u8>(~kCounting);
    return plain;
}

/// Encodes a value. A counting column of a new table keeps what is given, and its next value
/// follows the greatest.
std::string encodeCell(Importer& importer, Column& column, const Given& given, Encoded& encoded) {
    const bool counting = isCounting(column);
    const bool kept = importer.isNew && counting && !given.text.empty();
    const Column as = kept ? uncounted(column) : column;
    std::string reason = encodeValue(importer.table, as, given, true, encoded);
    if (!counting || !reason.empty()) return reason;
    const i64 value = kept ? toInteger(trimmed(given.text)).value_or(0) : column.nextValue;
    const bool first = importer.counted.insert(column.field).second;
    const i64 least = first && kept ? 1 : column.nextValue;
    column.nextValue = static_cast<u32>(std::max(value + column.step, least));
    return reason;
}

/// A number with no more decimals than a field holds.
std::string_view withoutDecimals(std::string_view number, u8 decimals, std::string& scratch) {
    const std::size_t point = number.find('.');
    if (point == std::string_view::npos || number.size() - point - 1 <= decimals ||
        !areDigits(number.substr(point + 1))) {
        return number;
    }
    char digits[64];
    const auto end = std::to_chars(digits, digits + sizeof digits, toReal(number),
                                   std::chars_format::fixed, decimals);
    if (end.ec != std::errc()) return number;
    scratch.assign(digits, end.ptr);
    return scratch;
}

/// The text of a cell as it would be exported; nothing when it is no number in the file's notation.
std::optional<std::string_view> plainCell(Importer& importer, const Column& column,
                                          std::string_view text) {
    const Kind kind = heldKind(column);
    if (kind == Kind::Date || kind == Kind::Moment) {
        return plainDate(importer.notation, text, importer.plain);
    }
    if (!isOfNumbers(column)) return text;
    if (importer.rounds && kind == Kind::Decimal) {
        return withoutDecimals(text, column.decimals, importer.plain);
    }
    return plainNumber(importer.notation, text, importer.plain);
}

/// Encodes a cell of the file, if the row has it. Empty, or why it does not fit.
std::string encodeRead(Importer& importer, Column& column, const CsvCell* cell, Encoded& encoded) {
    Given given;
    if (cell != nullptr) {
        const auto plain = plainCell(importer, column, cell->text);
        if (!plain) return fmt::format("\"{}\" is no number with a decimal comma", cell->text);
        given = Given::cell(*plain, cell->quoted);
    }
    given.asGiven = importer.asWritten;
    return encodeCell(importer, column, given, encoded);
}

/// Encodes a row; what does not fit is told and becomes blank.
void encodeRow(Importer& importer, const CsvRow& row) {
    Table& table = importer.table;
    if (row.cells.size() != importer.mapping.width) {
        tellCell(importer, row.line,
                 fmt::format("{} instead of {}", counted(row.cells.size(), "cell"),
                             importer.mapping.width));
    }
    importer.values.resize(table.columns.size());
    for (std::size_t i = 0; i < table.columns.size(); ++i) {
        Column& column = table.columns[i];
        const std::size_t cell = importer.mapping.cells[i];
        const CsvCell* const read = cell < row.cells.size() ? &row.cells[cell] : nullptr;
        std::string reason = encodeRead(importer, column, read, importer.values[i]);
        if (reason.empty()) continue;
        tellCell(importer, row.line, column.name + ": " + reason);
        reason = encodeCell(importer, column, Given{}, importer.values[i]);
        if (!reason.empty()) refuse(table.path, ": ", column.name, ": ", reason);
    }
}

void writeRow(Importer& importer, const CsvRow& row) {
    Table& table = importer.table;
    newRecord(table);
    Change* const change = importer.change;
    for (std::size_t i = 0; i < table.columns.size(); ++i) {
        const Column& column = table.columns[i];
        const Encoded& value = importer.values[i];
        change != nullptr ? change->put(column, value) : putValue(table, column, value);
    }
    const std::size_t deletion = importer.mapping.deletion;
    if (deletion < row.cells.size() && sameText(row.cells[deletion].text, "true")) {
        table.base->RecordBuffer[0] = '*';
    }
    change != nullptr ? change->appendRecord() : appendRecord(table);
}

enum class Pass : u8 {
    Check,  ///< only tell what does not fit
    Write
};

/// Takes all rows after the headings.
void takeRows(Importer& importer, Pass pass, bool strict) {
    const u64 lines = importer.csv.countLines();
    Progress progress(importer.csv.name(), lines);
    CsvRow row;
    importer.csv.next(row);  // the headings
    importer.rows = importer.faults = 0;
    loadCounters(importer.table);
    while (importer.csv.next(row)) {
        leaveIfStopped();
        ++importer.rows;
        progress.add(1);
        encodeRow(importer, row);
        // Once a strict import is lost, the rest is only looked at.
        if (pass != Pass::Check && !(strict && importer.faults != 0)) writeRow(importer, row);
    }
}

/// All letters of the file that are not ASCII.
std::string lettersOf(CsvReader& csv) {
    std::set<std::string, std::less<>> letters;
    CsvRow row;
    csv.rewind();
    while (csv.next(row)) {
        leaveIfStopped();
        for (const CsvCell& cell : row.cells) {
            for (std::string_view rest = cell.text; !rest.empty();) {
                const std::size_t length = stepUtf8(rest).length;
                if (length > 1) letters.emplace(rest.substr(0, length));
                rest.remove_prefix(length);
            }
        }
    }
    return joined({letters.begin(), letters.end()}, "");
}

bool holdsAll(const CodePage& page, const std::string& letters) {
    std::string bytes;
    return fromUtf8(page, letters, bytes);
}

/// Where the table's page lacks letters of the file: names one that holds them all.
void tellBetterPage(const Importer& importer) {
    const PageChoice& chosen = importer.table.page;
    if (!importer.isNew && !chosen.isWeak) return;  // the mark of a table is not to be gainsaid
    const std::string letters = lettersOf(importer.csv);
    if (holdsAll(*chosen.page, letters)) return;
    // What most programs can read comes first.
    for (const std::string_view name : {"CP1252", "CP850", "CP1250", "CP852", "CP1251", "CP866",
                                        "CP1253", "CP1254", "CP1257", "UTF-8"}) {
        const auto page = openPage(name);
        if (!page || !holdsAll(*page, letters)) continue;
        note("{}: {} lacks letters of it; --code-page {} has them all", importer.csv.name(),
             pageName(*chosen.page), name);
        return;
    }
}

[[noreturn]] void refuseFaults(const Importer& importer) {
    tellBetterPage(importer);
    refuse(importer.csv.name(), ": ", counted(importer.faults, "value"),
           importer.faults == 1 ? " does" : " do",
           " not fit, nothing is written; --lenient leaves them blank");
}

Status tellImported(const Importer& importer, const std::string& table, const char* verb,
                    bool dryRun) {
    note("{}: {} {}{}", table, counted(importer.rows, "record"), dryRun ? "would be " : "", verb);
    if (importer.faults == 0) return kDone;
    tellBetterPage(importer);
    note("{}: {} did not fit and {} blank", importer.csv.name(), counted(importer.faults, "value"),
         importer.faults == 1 ? "is" : "are");
    return kFound;
}

// ---------------------------------------------------------------------------------------------
// To the end of a table
// ---------------------------------------------------------------------------------------------

Status append(const Options& options, CsvReader& csv, const std::vector<std::string>& headings) {
    const auto table = openToChange(options.table, {.codePage = options.codePage});
    refuseBesideShapes(*table, options.change);
    Importer importer{*table, csv, notationOf(options.decimal, options.dates),
                      mapColumns(*table, headings, csv.name(), "heading")};
    takeRows(importer, Pass::Check, !options.lenient);
    if (importer.faults != 0 && !options.lenient) refuseFaults(importer);
    if (!options.change.dryRun && importer.rows != 0) {
        Changing changing(*table, options.change);
        importer.change = &*changing;
        importer.silent = true;
        takeRows(importer, Pass::Write, false);
        leaveIfStopped();
        changing.commit();
    }
    tellPage(*table);
    return tellImported(importer, table->path, "appended", options.change.dryRun);
}

// ---------------------------------------------------------------------------------------------
// A new table
// ---------------------------------------------------------------------------------------------

struct Plan {
    std::unique_ptr<Table> like;
    std::vector<FieldPlan> fields;
    std::string codePage;
    bool rounds = false;
};

Plan planTable(const Options& options, CsvReader& csv, const std::vector<std::string>& headings) {
    Plan plan;
    plan.codePage = options.codePage;
    if (!options.like.empty()) {
        plan.like = openToRead(options.like, {.codePage = options.codePage});
        plan.codePage = pageName(*plan.like->page.page);
        return plan;
    }
    if (plan.codePage.empty()) plan.codePage = options.kind == TableKind::Visual ? "1252" : "437";
    const auto page = openPage(plan.codePage);
    if (!page) refuse("--code-page ", plan.codePage, ": no such code page");
    if (markOf(*page) == 0) {
        note("no mark in a table says {}; whoever reads it must be told", pageName(*page));
    }
    if (!options.schema.empty()) {
        plan.fields = parseSchema(options.schema, options.kind, *page);
        return plan;
    }
    plan.fields =
        inferFields(csv, headings, notationOf(options.decimal, options.dates), options.kind, *page);
    note("fields by the values: {}", schemaText(plan.fields));
    return plan;
}

void makeEmptyTable(const Target& target, const Plan& plan, const Options& options) {
    if (!plan.like) {
        makeTable(target, plan.fields, options.kind, *openPage(plan.codePage), options.blockSize);
        return;
    }
    makeLike(target, *plan.like, markToKeep(*plan.like), options.blockSize);
}

/// Fields of an inferred plan are found by place, as their names may differ from the headings.
Mapping newMapping(const Plan& plan, const Options& options, const Table& table,
                   const std::vector<std::string>& headings, const std::string& csv) {
    if (plan.like || !options.schema.empty()) return mapColumns(table, headings, csv, "heading");
    Mapping mapping{{}, kNoCell, headings.size()};
    for (std::size_t i = 0; i < table.columns.size(); ++i) mapping.cells.push_back(i);
    return mapping;
}

/// The index that is made anew for a table that is replaced.
IndexPlan indexOf(const Table* old, const Target& target, const Options& options) {
    if (old != nullptr) return tool::indexOf(*old, options.change);
    if (!options.change.reindex) return {};
    const std::vector<std::string> files = indexFilesBeside(target.path);
    if (files.empty()) return {};
    refuse(joined(files),
           ": belongs to no table that is there, and nothing says how its keys are "
           "made; remove it, or go without --reindex");
}

Status createBy(const Plan& plan, const Target& target, const Options& options, CsvReader& csv,
                const std::vector<std::string>& headings) {
    const std::unique_ptr<Table> old = openOld(target, options.change);
    std::optional<Swap> swap;
    old ? swap.emplace(target.path, memoFileOf(*old)) : swap.emplace(target.path);
    makeEmptyTable({target.path, swap->newTable()}, plan, options);
    auto table = openTable(swap->newTable(), {.codePage = plan.codePage, .writable = true});
    table->path = target.path;  // for messages: there it will be
    checkFree(*table, target, options.change);
    Importer importer{*table, csv, notationOf(options.decimal, options.dates),
                      newMapping(plan, options, *table, headings, csv.name())};
    importer.isNew = true;
    importer.asWritten = plan.like != nullptr;
    importer.rounds = plan.rounds;
    takeRows(importer, Pass::Write, !options.lenient);
    if (importer.faults != 0 && !options.lenient) refuseFaults(importer);
    finishAppend(*table);
    checkFree(*table, target, options.change);
    const IndexPlan index = indexOf(old.get(), target, options);
    const std::string memos = memoTarget(*table, target).filename().string();
    leaveIfStopped();
    if (!options.change.dryRun) {
        swap->commit(backupsOf(options.change), memos, index);
        tellStale(*table, {.records = true}, options.change);
    }
    return tellImported(importer, target.path, "written", options.change.dryRun);
}

Status create(const Options& options, CsvReader& csv, const std::vector<std::string>& headings) {
    const Target target =
        newTableTarget(options.table, options.change, "--append adds to it, --force replaces it");
    return createBy(planTable(options, csv, headings), target, options, csv, headings);
}

Status run(const Options& options) {
    CsvReader csv(options.csv, csvOptions(options));
    const std::vector<std::string> headings = findHeadings(csv, options);
    return options.append ? append(options, csv, headings) : create(options, csv, headings);
}

void addOptions(CLI::App& command, Options& options) {
    command.add_option("CSV", options.csv, "The file to read, - for standard input")->required();
    command.add_option("TABLE", options.table, "The table to write")->required();
    auto* const like =
        command.add_option("--like", options.like, "Structure, flags and mark of another table")
            ->type_name("TABLE");
    auto* const schema =
        command
            .add_option("--schema", options.schema, "Fields, as in \"NAME C(20), PRICE N(10,2)\"")
            ->type_name("FIELDS");
    auto* const append = command.add_flag("--append", options.append, "To the end of the table");
    auto* const kind =
        addChoice(command, "--kind", "dbase3 (default), dbase4, foxpro, visual, smt, level7",
                  "KIND", kKindWords, options.kind);
    auto* const block =
        command.add_option("--block-size", options.blockSize, "Bytes per block of the memo file")
            ->type_name("N")
            ->check(CLI::Range(1, 65535).description(""));
    like->excludes(schema)->excludes(append)->excludes(kind);
    schema->excludes(append);
    append->excludes(kind)->excludes(block);
    command.add_option("--code-page", options.codePage, "Code page of the table")
        ->type_name("NAME");
    command
        .add_option("--csv-code-page", options.csvCodePage, "Code page of the file, if not UTF-8")
        ->type_name("NAME");
    command.add_option("-d,--delimiter", options.delimiter, "Between cells: a character, or tab")
        ->type_name("C");
    command.add_option("--decimal", options.decimal, "Decimal mark of the file: \",\" or \".\"")
        ->type_name("C");
    command.add_option("--date-format", options.dates, "Dates of the file, such as DD.MM.YYYY")
        ->type_name("FORM");
    auto* const strict = command.add_flag("--strict", options.strict,
                                          "Write nothing when a value does not fit (default)");
    command.add_flag("--lenient", options.lenient, "Leave such values blank")->excludes(strict);
    command.add_flag("--force", options.change.force,
                     "Replace a table that is there; append also beside a .shp file");
    addChangeOptions(command, options.change);
    addReindexOption(command, options.change);
}

}  // namespace

namespace {
/// The wanted page, or, unless no other will do, the first that holds all letters.
std::string pageFor(CsvReader& csv, const RowsToImport& rows) {
    const bool visual = rows.kind == TableKind::Visual;
    if (rows.fixedPage) return rows.codePage;
    const std::string letters = lettersOf(csv);
    for (const std::string& name :
         {rows.codePage, std::string(visual ? "CP1252" : "CP437"), std::string("CP1252"),
          std::string("CP1251"), std::string("CP866"), std::string("CP1250")}) {
        const auto page = name.empty() ? nullptr : openPage(name);
        if (page && holdsAll(*page, letters)) return name;
    }
    return "UTF-8";
}
}  // namespace

Status importRows(const RowsToImport& rows, const ChangeOptions& change) {
    Options options;
    options.table = rows.table;
    options.kind = rows.kind;
    options.change = change;
    CsvReader csv(rows.csv, {});
    csv.rename(rows.table);
    Plan plan;
    plan.codePage = pageFor(csv, rows);
    plan.rounds = true;
    const auto page = openPage(plan.codePage);
    if (!page) refuse("--code-page ", plan.codePage, ": no such code page");
    csv.rewind();
    const std::vector<std::string> headings = readHeadings(csv);
    plan.fields = inferFields(csv, headings, {}, rows.kind, *page);
    for (std::size_t i = 0; i < plan.fields.size(); ++i) {
        const std::optional<FieldPlan> better = rows.better(i, plan.fields[i]);
        if (!better) continue;
        const std::string name = plan.fields[i].name;
        plan.fields[i] = *better;
        plan.fields[i].name = name;
    }
    note("{}: its fields are {}", rows.table, schemaText(plan.fields));
    const Target target = newTableTarget(rows.table, change, "--force replaces it");
    return createBy(plan, target, options, csv, headings);
}

void addImport(CLI::App& program, Job& job) {
    const auto [command, options] = newCommand(
        program, job, "import", "Make a table from CSV, or append to one", run,
        "Examples:\n"
        "  mira import stock.csv stock.dbf\n"
        "  mira import stock.csv new --schema 'NAME C(20), PRICE N(10,2)' --code-page CP866\n"
        "  mira import more.csv stock --append --dry-run\n"
        "  mira export old | mira import - new --like old");
    addOptions(command, options);
}

}  // namespace mira::tool
