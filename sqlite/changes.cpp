#include "changes.h"

#include "tables/change/append.h"
#include "tables/change/backup.h"
#include "tables/change/recovery.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"

namespace mira::sql {
namespace {

using tables::Column;
using tables::Given;

constexpr const char* kFixed = "a record's number is its place in the file and cannot be given";

bool isNull(sqlite3_value* value) { return sqlite3_value_type(value) == SQLITE_NULL; }

std::string_view bytesOf(sqlite3_value* value) {
    const void* const bytes = sqlite3_value_blob(value);
    if (bytes == nullptr) return {};
    return {static_cast<const char*>(bytes), static_cast<std::size_t>(sqlite3_value_bytes(value))};
}

Given givenOf(sqlite3_value* value) {
    switch (sqlite3_value_type(value)) {
        case SQLITE_INTEGER:
            return Given::ofInteger(sqlite3_value_int64(value));
        case SQLITE_FLOAT:
            return Given::ofReal(sqlite3_value_double(value));
        case SQLITE_TEXT:
            // As UTF-8, whatever the database holds.
            sqlite3_value_text(value);
            return Given::ofText(bytesOf(value));
        case SQLITE_BLOB:
            return Given::ofBlob(bytesOf(value));
        default:
            return {};
    }
}

}  // namespace

void Changes::refuse(const Row& row, const std::string& what) const {
    tables::refuse(table_.path, ": ",
                   row.isNew ? "new record" : tables::textOf("record ", row.record + 1), ", ",
                   what);
}

/// Before the first row of a statement: another program may have written meanwhile.
void Changes::prepare() {
    if (!rows_.empty()) return;
    tables::checkWritable(table_);
    for (const std::string& note : tables::lockForChange(table_)) warn_(note);
    tables::loadCounters(table_);
    table_.page.uncertain = false;  // until a text of this statement has letters beyond ASCII
    added_ = 0;
}

void Changes::encode(Row& row, std::size_t column, sqlite3_value* value) {
    const Column& of = columns_[column];
    const std::string reason = tables::encodeValue(table_, of, givenOf(value), row.isNew, encoded_);
    if (!reason.empty()) refuse(row, of.name + ": " + reason);
    values_.push_back({static_cast<u16>(column), encoded_.isNull, encoded_.partial,
                       static_cast<u32>(encoded_.memo.size())});
    bytes_.append(encoded_.bytes).append(encoded_.memo);
    ++row.values;
}

void Changes::checkNumber(const Row& row, const Column& column, sqlite3_value* value) const {
    const bool same = !row.isNew && sqlite3_value_int64(value) == i64{row.record} + 1;
    if (!isNull(value) && !same) refuse(row, column.name + ": " + kFixed);
}

Changes::Mark Changes::markOf(const Row& row, const Column& column, sqlite3_value* value) const {
    if (isNull(value) && row.isNew) return Mark::Keep;
    const i64 flag = sqlite3_value_int64(value);
    if (sqlite3_value_type(value) != SQLITE_INTEGER || flag < 0 || flag > 1) {
        refuse(row, column.name + ": is 1 or 0");
    }
    return flag != 0 ? Mark::Deleted : Mark::Live;
}

Changes::Row Changes::rowOf(std::span<sqlite3_value*> values) {
    constexpr std::size_t kBeforeColumns = 2;  // old and new rowid
    Row row;
    row.isNew = isNull(values[0]);
    if (row.isNew && added_ == 0) {
        tables::refuseBesideShapes(table_, "`mira import --append --force` appends all the same");
    }
    const u32 count = reccount(table_.base.get());
    row.record = row.isNew ? count + added_ : static_cast<u32>(sqlite3_value_int64(values[0]) - 1);
    if (values.size() == 1) {
        row.mark = Mark::Deleted;
        return row;
    }
    const bool moved = row.isNew ? !isNull(values[1])
                                 : sqlite3_value_int64(values[0]) != sqlite3_value_int64(values[1]);
    if (moved) refuse(row, std::string("rowid: ") + kFixed);
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        const Column& column = columns_[i];
        sqlite3_value* const value = values[i + kBeforeColumns];
        if (!row.isNew && sqlite3_value_nochange(value) != 0) continue;
        if (column.kind == tables::Kind::RecordNumber) {
            checkNumber(row, column, value);
        } else if (column.kind == tables::Kind::Deletion) {
            row.mark = markOf(row, column, value);
        } else {
            encode(row, i, value);
        }
    }
    return row;
}

void Changes::take(std::span<sqlite3_value*> values, sqlite3_int64* rowid) {
    prepare();
    const std::size_t heldValues = values_.size(), heldBytes = bytes_.size();
    Row row;
    try {
        row = rowOf(values);
    } catch (...) {
        values_.resize(heldValues);
        bytes_.resize(heldBytes);
        throw;
    }
    if (row.isNew) {
        tables::advanceCounters(table_);
        ++added_;
        *rowid = i64{row.record} + 1;
    }
    rows_.push_back(row);
}

/// Puts the row's values into RecordBuffer.
void Changes::putValues(tables::Change& change, const Row& row) {
    for (u16 i = 0; i < row.values; ++i) {
        const HeldValue& value = values_[nextValue_++];
        const Column& column = columns_[value.column];
        encoded_.bytes.assign(bytes_, nextByte_, column.length);
        encoded_.memo.assign(bytes_, nextByte_ + column.length, value.memoSize);
        encoded_.isNull = value.isNull;
        encoded_.partial = value.partial;
        nextByte_ += column.length + value.memoSize;
        change.put(column, encoded_);
    }
}

void Changes::writeRow(tables::Change& change, const Row& row) {
    DbfBase* const base = table_.base.get();
    if (row.isNew) {
        tables::newRecord(table_);
    } else {
        change.readRecord(row.record);
    }
    putValues(change, row);
    if (row.mark != Mark::Keep) base->RecordBuffer[0] = row.mark == Mark::Deleted ? '*' : ' ';
    if (row.isNew) {
        change.appendRecord();
    } else {
        change.writeRecord(row.record);
    }
}

void Changes::write() {
    if (rows_.empty()) return;
    if (table_.page.uncertain) {
        warn_(table_.path + ": " + tables::pageDoubt(table_.page, "code_page=NAME"));
    }
    try {
        writeRows();
    } catch (...) {
        drop();
        throw;
    }
    drop();
}

void Changes::writeRows() {
    tables::Change change(table_, {.wanted = !backedUp_});
    if (!backedUp_) {
        if (const std::string stale = tables::staleIndexes(table_); !stale.empty()) warn_(stale);
    }
    backedUp_ = true;
    for (const Row& row : rows_) writeRow(change, row);
    change.commit();
}

void Changes::drop() {
    if (table_.base != nullptr) tables::unlock(table_);
    rows_.clear();
    values_.clear();
    bytes_.clear();
    nextValue_ = nextByte_ = 0;
    added_ = 0;
}

}  // namespace mira::sql
