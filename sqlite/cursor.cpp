#include <algorithm>
#include <cmath>

#include "module.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"

namespace mira::sql {
namespace {

using tables::Column;
using tables::Deleted;
using tables::Fault;
using tables::Value;

bool isMemoFault(Fault fault) { return fault == Fault::NoMemo || fault == Fault::MemoCut; }

/// The statement of the connection that runs and changes something; null when there is none.
sqlite3_stmt* writingStatement(sqlite3* connection) {
    sqlite3_stmt* statement = sqlite3_next_stmt(connection, nullptr);
    while (statement != nullptr &&
           (sqlite3_stmt_busy(statement) == 0 || sqlite3_stmt_readonly(statement) != 0)) {
        statement = sqlite3_next_stmt(connection, statement);
    }
    return statement;
}

/// Views and triggers use columns that the statement does not name.
bool hasViews(sqlite3* connection) {
    sqlite3_stmt* statement = nullptr;
    const int prepared = sqlite3_prepare_v2(
        connection, "SELECT 1 FROM temp.sqlite_master WHERE type IN ('view', 'trigger')", -1,
        &statement, nullptr);
    const bool found = prepared != SQLITE_OK || sqlite3_step(statement) != SQLITE_DONE;
    sqlite3_finalize(statement);
    return found;
}

/// Whether a text holds a word; names that are no plain words it may hold.
bool mayHoldWord(std::string_view text, std::string_view word) {
    if (!std::all_of(word.begin(), word.end(), tables::isWordByte)) return true;
    for (std::size_t at = text.find(word); at != std::string_view::npos;
         at = text.find(word, at + 1)) {
        const std::size_t end = at + word.size();
        if ((at == 0 || !tables::isWordByte(text[at - 1])) &&
            (end == text.size() || !tables::isWordByte(text[end]))) {
            return true;
        }
    }
    return false;
}

/// Whether a statement may use the value of a column that it asks for. UPDATE ... FROM asks for all
/// columns of its table, only to hand them back; those that its text cannot mean it does not use.
bool mayUse(const VirtualTable& of, sqlite3_stmt* statement, const Column& column) {
    const char* const sql = sqlite3_sql(statement);
    if (!of.changes || sql == nullptr) return true;
    const std::string text = tables::foldCase(tables::trimmed(sql, " \t\r\n"));
    return !text.starts_with("update") || text.find('*') != std::string::npos ||
           mayHoldWord(text, "natural") || mayHoldWord(text, tables::foldCase(column.name)) ||
           hasViews(of.connection);
}

/// For a shortcut or an index. That a memo which cannot be read decides is told here, since SQLite
/// may never see it.
Stored cellOf(Cursor& cursor, int column) {
    Value value;
    const Column& of = (*tableOf(cursor).columns)[static_cast<std::size_t>(column)];
    tables::readCell(*cursor.cells, of, value);
    if (isMemoFault(value.fault)) addLoss(cursor, of, value.fault);
    return tables::storedAs(of, value);
}

/// Reads a record; false when it is not one of those the table shows.
bool readShown(Cursor& cursor, u32 record) {
    tables::readRecord(*cursor.table, record);
    cursor.cells->record = record;
    const Deleted deleted = tableOf(cursor).arguments.deleted;
    return deleted == Deleted::Include ||
           tables::isDeleted(*cursor.table) == (deleted == Deleted::Only);
}

bool mayPass(Cursor& cursor) {
    return std::all_of(cursor.shortcuts.begin(), cursor.shortcuts.end(), [&](const Shortcut& s) {
        return mayHold(s, cellOf(cursor, s.condition.column));
    });
}

/// A whole number, also one that is written as 3.0: SQLite takes this for 3 when it plans.
std::optional<i64> wholeNumber(const Stored& constant) {
    constexpr double kExact = 9007199254740992.0;  // 2^53
    if (constant.storage == Storage::Integer) return constant.integer;
    const double real = constant.real;
    if (constant.storage != Storage::Real || std::abs(real) >= kExact || std::trunc(real) != real) {
        return std::nullopt;
    }
    return static_cast<i64>(real);
}

/// Conditions on the record number make the range narrower. They are certain, so they are kept only
/// where the constant is a whole number.
void narrow(Cursor& cursor, const Shortcut& s) {
    const std::optional<i64> constant = s.usable ? wholeNumber(s.constant) : std::nullopt;
    if (!constant) return;
    const i64 number = std::clamp<i64>(*constant, -1, i64{1} << 33) - 1;  // from 0
    i64 first = cursor.record;
    i64 end = cursor.end;
    switch (s.condition.op) {
        case Operator::Equal:
            first = std::max(first, number);
            end = std::min(end, number + 1);
            break;
        case Operator::Less:
            end = std::min(end, number);
            break;
        case Operator::LessEqual:
            end = std::min(end, number + 1);
            break;
        case Operator::Greater:
            first = std::max(first, number + 1);
            break;
        case Operator::GreaterEqual:
            first = std::max(first, number);
            break;
        case Operator::IsNull:
        case Operator::Like:
        case Operator::Glob:
            break;
    }
    cursor.end = static_cast<u32>(std::max<i64>(end, 0));
    cursor.record = static_cast<u32>(std::min<i64>(first, cursor.end));
}

void tellScan(Cursor& cursor, u64 done, u64 records) {
    const VirtualTable& of = tableOf(cursor);
    const Host& host = of.session->host;
    if (host.scanned) host.scanned({&cursor, of.table->path, done, records});
}

/// Every now and then, in a scan and while an index is made.
void countLook(Cursor& cursor) {
    constexpr u32 kStep = 1024;
    if (++cursor.looked % kStep != 0) return;
    const u32 records = reccount(cursor.table->base.get());
    tellScan(cursor, std::min(cursor.looked, records), u64{records} + 1);
}

void makeIndex(Cursor& cursor, int column) {
    KeyIndex index(column);
    for (u32 record = 0; record < reccount(cursor.table->base.get()); ++record) {
        countLook(cursor);
        if (readShown(cursor, record)) index.add(cellOf(cursor, column), record);
    }
    index.finish();
    cursor.index = std::move(index);
}

/// A scan for a value that comes again is answered from an index.
void useIndex(Cursor& cursor) {
    const auto equal =
        std::find_if(cursor.shortcuts.begin(), cursor.shortcuts.end(), [](const Shortcut& s) {
            return s.condition.op == Operator::Equal &&
                   (s.constant.storage != Storage::Real || !std::isnan(s.constant.real));
        });
    if (equal == cursor.shortcuts.end()) return;
    const int column = equal->condition.column;
    if (!cursor.index || cursor.index->column() != column) makeIndex(cursor, column);
    cursor.found = cursor.index->find(equal->value());
    cursor.indexed = true;
}

/// What the connection has written since the last scan.
void lookAgain(Cursor& cursor) {
    const SharedFile& file = *tableOf(cursor).file;
    if (file.open != nullptr) file.open->show();
    if (cursor.written == file.written) return;
    tables::refreshTable(*cursor.table);
    cursor.cells->memos = {};
    cursor.index.reset();
    cursor.written = file.written;
    cursor.undone = file.undone;
}

/// A rollback within a scan may have taken records from it.
void endSooner(Cursor& cursor) {
    const SharedFile& file = *tableOf(cursor).file;
    if (cursor.undone == file.undone) return;
    tables::refreshTable(*cursor.table);
    cursor.cells->memos = {};
    cursor.undone = file.undone;
    const u32 count = reccount(cursor.table->base.get());
    cursor.end = std::min(cursor.end, count);
    const auto last = std::find_if(cursor.found.begin(), cursor.found.end(),
                                   [&](const KeyIndex::Entry& e) { return e.record >= count; });
    cursor.found = cursor.found.first(static_cast<std::size_t>(last - cursor.found.begin()));
}

/// The next record to look at; nothing at the end.
std::optional<u32> advance(Cursor& cursor) {
    endSooner(cursor);
    if (!cursor.indexed) {
        return cursor.record < cursor.end ? std::optional(cursor.record++) : std::nullopt;
    }
    if (cursor.found.empty()) return std::nullopt;
    const u32 record = cursor.found.front().record;
    cursor.found = cursor.found.subspan(1);
    return record;
}

}  // namespace

void addLoss(Cursor& cursor, const Column& column, Fault fault) {
    VirtualTable& of = tableOf(cursor);
    const u32 record = cursor.cells->record;
    sqlite3_stmt* const writing = isMemoFault(fault) ? writingStatement(of.connection) : nullptr;
    if (writing == nullptr) return of.losses.add(fault, record, column);
    if (mayUse(of, writing, column)) {
        tables::refuse(of.table->path, ": record ", u64{record} + 1, ", ", column.name,
                       ": the memo cannot be read whole, and so nothing is made of it");
    }
}

void beginScan(Cursor& cursor, const char* plan, std::span<sqlite3_value*> constants) {
    lookAgain(cursor);
    const Columns& columns = *tableOf(cursor).columns;
    const int recordColumn = static_cast<int>(columns.recordNumber());
    const bool repeated = !cursor.plan.empty() && cursor.plan == plan;
    cursor.plan = plan;
    cursor.shortcuts.clear();
    cursor.record = 0;
    cursor.end = reccount(cursor.table->base.get());
    cursor.indexed = false;
    std::size_t i = 0;
    bool oneRecord = false;
    for (const Condition& condition : readPlan(plan)) {
        const Column& column = columns[static_cast<std::size_t>(condition.column)];
        Shortcut s = shortcutOf(condition, column, constants[i++]);
        if (condition.column == recordColumn) {
            narrow(cursor, s);
            oneRecord = oneRecord || condition.op == Operator::Equal;
        } else if (s.usable) {
            cursor.shortcuts.push_back(std::move(s));
        }
    }
    cursor.looked = 0;
    if (repeated && !oneRecord) useIndex(cursor);
    if (!cursor.indexed) tellScan(cursor, 0, u64{cursor.end} + 1);
    nextRecord(cursor);
}

void nextRecord(Cursor& cursor) {
    cursor.atEnd = false;
    while (const std::optional<u32> record = advance(cursor)) {
        countLook(cursor);
        if (readShown(cursor, *record) && mayPass(cursor)) return;
    }
    cursor.atEnd = true;
    if (!cursor.indexed) tellScan(cursor, cursor.end, cursor.end);
}

}  // namespace mira::sql
