#include "changes.h"

#include <algorithm>
#include <utility>

#include "shortcut.h"
#include "tables/change/append.h"
#include "tables/change/backup.h"
#include "tables/change/disk.h"
#include "tables/change/recovery.h"
#include "tables/index/rebuild.h"
#include "tables/index/stale.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"

namespace mira::sql {
namespace {

using tables::Column;
using tables::Given;

constexpr std::size_t kBeforeColumns = 2;  // old and new rowid
constexpr int kStatement = 1 << 30;        // mark of a statement, above all of SQLite's
constexpr const char* kFixed = "a record's number is its place in the file and cannot be given";

[[noreturn]] void refuseReplaced(const tables::Table& table) {
    tables::refuse(table.path,
                   ": another program has replaced the file since the transaction began; "
                   "nothing is written");
}

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

Changes::~Changes() {
    if (isOpen()) rollback();
}

void Changes::refuseLost() const {
    if (lost_) tables::refuse(table_.path, ": its fields have changed since it was opened");
}

void Changes::begin() {
    refuseLost();
    if (file_.open != nullptr) {
        // Within a transaction SQLite may connect a table anew; the one before goes on with it.
        if (file_.open->isNamed(name())) return;
        throw Locked(tables::textOf(table_.path, ": is being changed as ", file_.open->name(),
                                    "; COMMIT or ROLLBACK first"));
    }
    const std::vector<Column> declared = table_.columns;
    for (const std::string& note : tables::lockForChange(table_)) {
        session_.host.tell(Notice::Remark, note);
    }
    if (!isSame(declared, table_.columns)) {
        table_.columns = declared;
        lost_ = true;
        tables::unlock(table_);
        refuseLost();
    }
    tables::refreshTable(table_);
    file_.open = this;
}

void Changes::refuse(const Row& row, const std::string& what) const {
    tables::refuse(table_.path, ": ",
                   row.isNew ? "new record" : tables::textOf("record ", row.record + 1), ", ",
                   what);
}

/// Before the first row: another program may have written since the last transaction.
void Changes::prepare() {
    if (prepared_) return;
    tables::checkWritable(table_);
    tables::loadCounters(table_);
    table_.page.uncertain = false;  // until a text of this transaction has letters beyond ASCII
    prepared_ = true;
}

// --------------------------------------------------------------------------------------------
// A row
// --------------------------------------------------------------------------------------------

void Changes::encode(const Row& row, const Column& column, sqlite3_value* value) {
    if (count_ == values_.size()) values_.emplace_back();
    NewValue& made = values_[count_];
    made.column = &column;
    const std::string reason =
        tables::encodeValue(table_, column, givenOf(value), row.isNew, made.encoded);
    if (!reason.empty()) refuse(row, column.name + ": " + reason);
    ++count_;
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
    Row row;
    row.isNew = isNull(values[0]);
    if (row.isNew && !appends_) {
        tables::refuseBesideShapes(table_, "`mira import --append --force` appends all the same");
        appends_ = true;
    }
    row.record = row.isNew ? reccount(table_.base.get())
                           : static_cast<u32>(sqlite3_value_int64(values[0]) - 1);
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

/// A record as the transaction has left it, into RecordBuffer.
void Changes::load(u32 record) {
    if (loaded_ == record) return;
    if (change_) {
        change_->readRecord(record);
    } else {
        tables::readRecord(table_, record);
    }
    loaded_ = record;
}

/// Of the record in RecordBuffer.
tables::Value Changes::storedValue(const Column& column) {
    tables::Value stored;
    if (!cells_) cells_.emplace(table_);
    cells_->record = *loaded_;
    tables::readCell(*cells_, column, stored);
    if (stored.fault != tables::Fault::NoMemo && stored.fault != tables::Fault::MemoCut) {
        return stored;
    }
    // The memo may have come since the memo file was opened.
    cells_.emplace(table_);
    cells_->record = *loaded_;
    stored = {};
    tables::readCell(*cells_, column, stored);
    return stored;
}

/// Whether an old record gives the value already. Its bytes then stay as they are: they may say
/// more than SQLite's value does.
bool Changes::isAsStored(const Row& row, const Column& column, sqlite3_value* value) {
    load(row.record);
    return isSame(tables::storedAs(column, storedValue(column)), value);
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
            encode(row, column, value);
        }
    }
}

/// Journal, and the backups when they are due.
void Changes::makeChange() {
    if (change_) return;
    if (tables::isReplaced(table_)) refuseReplaced(table_);
    const auto info = tables::statusOf(fileno(table_.base->TableFile));
    const std::optional<ino_t> file = info ? std::optional(info->st_ino) : std::nullopt;
    const bool first = !file || file_.backedUp != file;
    tables::IndexPlan index =
        table_.options.reindex ? tables::planReindex(table_) : tables::IndexPlan{};
    loaded_.reset();
    change_.emplace(table_,
                    tables::BackupPlan{first && session_.host.backups, session_.host.backupCopies});
    change_->reindex(std::move(index));
    if (first) file_.backedUp = file;
}

void Changes::writeRow(const Row& row) {
    DbfBase* const base = table_.base.get();
    makeChange();
    if (row.isNew) {
        tables::newRecord(table_);
    } else {
        load(row.record);
    }
    for (std::size_t i = 0; i < count_; ++i) change_->put(*values_[i].column, values_[i].encoded);
    if (row.mark != Mark::Keep) change_->touchMarks();
    if (row.mark != Mark::Keep) base->RecordBuffer[0] = row.mark == Mark::Deleted ? '*' : ' ';
    if (row.isNew) {
        change_->appendRecord();
    } else {
        change_->writeRecord(row.record);
    }
    ++file_.written;
}

void Changes::take(std::span<sqlite3_value*> values, sqlite3_int64* rowid) {
    const bool updates = values.size() > kBeforeColumns && !isNull(values[0]);
    if (updates) beginStatement();
    try {
        prepare();
        count_ = 0;
        loaded_.reset();
        const Row row = rowOf(values);
        if (row.isNew || row.mark != Mark::Keep || count_ != 0) writeRow(row);
        if (!row.isNew) return;
        tables::advanceCounters(table_);
        *rowid = i64{row.record} + 1;
    } catch (const tables::DiskError&) {
        throw;
    } catch (...) {
        if (updates) undoStatement();
        throw;
    }
}

void Changes::show() {
    if (change_) change_->flush();
}

// --------------------------------------------------------------------------------------------
// Savepoints
// --------------------------------------------------------------------------------------------

/// SQLite sets no savepoint for an UPDATE ... FROM of a virtual table, of however many rows, nor
/// does every version hand it over so that it can be told from another UPDATE. What
/// tells one statement from the next is the number of rows that all before it have changed; while
/// that is the same, nothing has come after the mark.
void Changes::beginStatement() {
    const int changes = sqlite3_total_changes(connection_);
    if (statement_ == changes) return;
    statement_ = changes;
    startsStatement_ = !change_;
    if (change_) change_->mark(kStatement);
}

void Changes::undoStatement() {
    if (!change_) return;
    if (startsStatement_) return undoAll();
    change_->undoTo(kStatement);
    noteUndone();
}

void Changes::mark(int number) {
    statement_.reset();
    if (!change_) {
        joined_ = number;
    } else {
        change_->mark(number);
    }
}

void Changes::release(int number) {
    statement_.reset();
    joined_ = std::min(joined_, number - 1);
    if (change_) change_->release(number);
}

void Changes::undoTo(int number) {
    statement_.reset();
    if (change_ && number > joined_) {
        change_->undoTo(number);
        return noteUndone();
    }
    joined_ = number;
    undoAll();
}

/// What comes after it is a change of its own.
void Changes::undoAll() {
    if (!change_) return;
    const std::string later = change_->undo();
    change_.reset();
    noteUndone();
    if (!later.empty()) throw tables::DiskError(table_.path + ": " + later);
}

void Changes::noteUndone() {
    ++file_.written;
    ++file_.undone;
    cells_.reset();
}

// --------------------------------------------------------------------------------------------
// The end
// --------------------------------------------------------------------------------------------

void Changes::sync() {
    if (!change_) return;
    if (tables::isReplaced(table_)) refuseReplaced(table_);
    change_->prepare();
    if (!std::exchange(table_.page.uncertain, false)) return;
    session_.host.tell(Notice::Remark,
                       tables::textOf(table_.path, ": ",
                                      tables::pageDoubt(table_.page, session_.host.pageOption)));
}

/// SQLite asks nobody any more, so what goes wrong is only told.
void Changes::commit() {
    try {
        if (change_ && !change_->finish()) {
            rollback();
            session_.host.tell(Notice::Failure,
                               table_.path +
                                   ": the journal could not be ended, and so what has been "
                                   "committed is undone");
            return;
        }
        tellStale();
    } catch (const tables::Refusal& refusal) {
        // The change stands; recovery brings the new index to its place.
        session_.host.tell(Notice::Failure, refusal.what());
    }
    end();
}

/// Which index files the transaction has left behind.
void Changes::tellStale() {
    if (!change_ || table_.options.reindex) return;
    for (const std::string& stale : tables::staleIndexes(table_, change_->touched())) {
        if (toldStale_.insert(stale).second) session_.host.tell(Notice::Remark, stale);
    }
}

void Changes::rollback() {
    std::string later;
    if (change_) {
        later = change_->undo();
        noteUndone();
    }
    end();
    if (!later.empty()) session_.host.tell(Notice::Failure, table_.path + ": " + later);
}

void Changes::end() {
    if (!isOpen()) return;
    change_.reset();
    tables::unlock(table_);
    file_.open = nullptr;
    joined_ = -1;
    prepared_ = appends_ = false;
    statement_.reset();
    values_.clear();
    cells_.reset();
}

}  // namespace mira::sql
