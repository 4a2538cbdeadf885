#include <algorithm>
#include <cmath>

#include "module.h"

namespace mira::sql {
namespace {

using tables::Column;
using tables::Deleted;
using tables::Value;

Stored cellOf(Cursor& cursor, int column) {
    Value value;
    const Column& of = tableOf(cursor).columns[static_cast<std::size_t>(column)];
    tables::readCell(*cursor.cells, of, value);
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

/// Conditions on the record number make the range narrower. They are certain, so they are kept only
/// where the constant is a whole number.
void narrow(Cursor& cursor, const Shortcut& s) {
    if (!s.usable || s.constant.storage != Storage::Integer) return;
    const i64 number = std::clamp<i64>(s.constant.integer, -1, i64{1} << 33) - 1;  // from 0
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
        default:
            break;
    }
    cursor.end = static_cast<u32>(std::max<i64>(end, 0));
    cursor.record = static_cast<u32>(std::min<i64>(first, cursor.end));
}

void makeIndex(Cursor& cursor, int column) {
    KeyIndex index(column);
    for (u32 record = 0; record < reccount(cursor.table->base.get()); ++record) {
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

/// The next record to look at; nothing at the end.
std::optional<u32> advance(Cursor& cursor) {
    if (!cursor.indexed) {
        return cursor.record < cursor.end ? std::optional(cursor.record++) : std::nullopt;
    }
    if (cursor.found.empty()) return std::nullopt;
    const u32 record = cursor.found.front().record;
    cursor.found = cursor.found.subspan(1);
    return record;
}

}  // namespace

void beginScan(Cursor& cursor, const char* plan, std::span<sqlite3_value*> constants) {
    const std::vector<tables::Column>& columns = tableOf(cursor).columns;
    const int recordColumn = static_cast<int>(columns.size()) - kHiddenColumns;
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
    if (repeated && !oneRecord) useIndex(cursor);
    nextRecord(cursor);
}

void nextRecord(Cursor& cursor) {
    cursor.atEnd = false;
    while (const std::optional<u32> record = advance(cursor)) {
        if (readShown(cursor, *record) && mayPass(cursor)) return;
    }
    cursor.atEnd = true;
}

}  // namespace mira::sql
