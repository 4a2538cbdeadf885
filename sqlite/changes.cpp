#include "changes.h"

#include <algorithm>

#include "shortcut.h"
#include "tables/change/append.h"
#include "tables/change/backup.h"
#include "tables/change/recovery.h"
#include "tables/index/rebuild.h"
#include "tables/index/stale.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"

namespace mira::sql {
namespace {

using tables::Column;
using tables::Given;

constexpr const char* kFixed = "a record's number is its place in the file and cannot be given";

bool isNull(sqlite3_value* value) { return sqlite3_value_type(value) == SQLITE_NULL; }

Given givenOf(sqlite3_value* value) {
    const Stored stored = storedOf(value);
    switch (stored.storage) {
        case Storage::Integer:
            return Given::ofInteger(stored.integer);
        case Storage::Real:
            return Given::ofReal(stored.real);
        case Storage::Text:
            return Given::ofText(stored.bytes);
        case Storage::Blob:
            return Given::ofBlob(stored.bytes);
        case Storage::Null:
            break;
    }
    return {};
}

/// Whether SQLite's value is the stored one, as it was handed over.
bool isSame(const Stored& stored, sqlite3_value* value) {
    const Stored given = storedOf(value);
    const bool compared = stored.storage != Storage::Null && stored.storage != Storage::Blob;
    if (compared) return compare(stored, given) == 0;
    return stored.storage == given.storage && stored.bytes == given.bytes;
}

bool isSame(const std::vector<Column>& a, const std::vector<Column>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const Column& x, const Column& y) {
        return x.name == y.name && x.type == y.type && x.offset == y.offset &&
               x.length == y.length && x.decimals == y.decimals;
    });
}

}  // namespace

void Changes::refuseLost() const {
    if (lost_) tables::refuse(table_.path, ": its fields have changed since it was opened");
}

void Changes::begin() {
    refuseLost();
    if (tables::isReplaced(table_)) backedUp_ = false;
    const std::vector<Column> declared = table_.columns;
    for (const std::string& note : tables::lockForChange(table_)) {
        host_.tell(Notice::Remark, note);
    }
    if (!isSame(declared, table_.columns)) {
        table_.columns = declared;
        lost_ = true;
        tables::unlock(table_);
        refuseLost();
    }
    tables::refreshTable(table_);
}

void Changes::refuse(const Row& row, const std::string& what) const {
    tables::refuse(table_.path, ": ",
                   row.isNew ? "new record" : tables::textOf("record ", row.record + 1), ", ",
                   what);
}

/// Before the first row of a statement: another program may have written meanwhile.
void Changes::prepare() {
    if (!rows_.empty()) return;
    tables::checkWritable(table_);
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
    readValues(row, values.subspan(kBeforeColumns));
    return row;
}

/// Whether an old record gives the value already. Its bytes then stay as they are: they may say
/// more than SQLite's value does.
bool Changes::isAsStored(const Row& row, const Column& column, sqlite3_value* value) {
    if (!cells_) cells_.emplace(table_);
    if (cellsOf_ != row.record) tables::readRecord(table_, row.record);
    cellsOf_ = cells_->record = row.record;
    tables::Value stored;
    tables::readCell(*cells_, column, stored);
    return isSame(tables::storedAs(column, stored), value);
}

/// UPDATE ... FROM gives all columns, those that are not set as the record has given them.
void Changes::readValues(Row& row, std::span<sqlite3_value*> values) {
    const bool all = sqlite3_value_nochange(values[columns_.recordNumber()]) == 0;
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        const Column& column = columns_[i];
        sqlite3_value* const value = values[i];
        if (!row.isNew) {
            if (sqlite3_value_nochange(value) != 0) continue;
            // A null that is set also takes away what is no value.
            if ((all || !isNull(value)) && isAsStored(row, column, value)) continue;
        }
        if (column.kind == tables::Kind::RecordNumber) {
            checkNumber(row, column, value);
        } else if (column.kind == tables::Kind::Deletion) {
            row.mark = markOf(row, column, value);
        } else {
            encode(row, i, value);
        }
    }
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
        encoded_.hasMemo = value.memoSize != 0;
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
    if (row.mark != Mark::Keep) change.touchMarks();
    if (row.mark != Mark::Keep) base->RecordBuffer[0] = row.mark == Mark::Deleted ? '*' : ' ';
    if (row.isNew) {
        change.appendRecord();
    } else {
        change.writeRecord(row.record);
    }
}

void Changes::write() {
    if (rows_.empty()) return;
    if (tables::isReplaced(table_)) {
        drop();
        tables::refuse(table_.path,
                       ": another program has replaced the file since the statement began; "
                       "nothing is written");
    }
    if (table_.page.uncertain) {
        host_.tell(Notice::Remark,
                   table_.path + ": " + tables::pageDoubt(table_.page, host_.pageOption));
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
    const bool reindex = table_.options.reindex;
    tables::IndexPlan index = reindex ? tables::planReindex(table_) : tables::IndexPlan{};
    tables::Change change(table_, {.wanted = !backedUp_});
    change.reindex(std::move(index));
    backedUp_ = true;
    for (const Row& row : rows_) writeRow(change, row);
    change.commit();
    if (reindex) return;
    for (const std::string& stale : tables::staleIndexes(table_, change.touched())) {
        if (toldStale_.insert(stale).second) host_.tell(Notice::Remark, stale);
    }
}

void Changes::drop() {
    if (table_.base != nullptr) tables::unlock(table_);
    rows_.clear();
    values_.clear();
    bytes_.clear();
    nextValue_ = nextByte_ = 0;
    added_ = 0;
    cells_.reset();
    cellsOf_.reset();
}

}  // namespace mira::sql
