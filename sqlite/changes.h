// What a transaction changes in a table. Each row is checked and written when SQLite hands it over,
// so that whoever reads in the same connection sees it, and is put back when the transaction, or
// the savepoint it came after, is rolled back.
//
//   begin                      the table is locked
//   take, mark, release, undo  rows, and the way back
//   sync                       all is on the disk, and can still be undone
//   commit or rollback         the table is unlocked
//
// The journal and the backups are made with the first row.
#pragma once

#include <algorithm>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "api.h"
#include "columns.h"
#include "session.h"
#include "tables/change/change.h"
#include "tables/store/store.h"
#include "tables/value/value.h"

namespace mira::sql {

class Changes {
public:
    /// name: the table's, with that of its schema.
    Changes(tables::Table& table, const Columns& columns, sqlite3* connection, Session& session,
            SharedFile& file, std::string name)
        : table_(table),
          columns_(columns),
          connection_(connection),
          session_(session),
          file_(file),
          names_{std::move(name)} {}
    ~Changes();
    Changes(const Changes&) = delete;

    const std::string& name() const { return names_.back(); }
    /// The table may get its old name back by a rollback, of which it is not told.
    bool isNamed(const std::string& name) const {
        return std::find(names_.begin(), names_.end(), name) != names_.end();
    }
    void rename(std::string name) { names_.push_back(std::move(name)); }
    const tables::Table& table() const { return table_; }
    /// Throws a Refusal once the table has been found to have other fields than were declared.
    void refuseLost() const;

    /// Before the first statement of a transaction that may write to the table: makes sure that
    /// what the table's name leads to is what is written, and locks it. Throws a Refusal.
    void begin();
    bool isOpen() const { return file_.open == this; }
    /// Writes a row of xUpdate: the old rowid or null, the new one, then the columns. Of an
    /// inserted row *rowid becomes the new record, from 1. Throws a Refusal that names column and
    /// value: the row is not written then, nor those before it of an UPDATE. After a
    /// DiskError the whole transaction has to be rolled back.
    void take(std::span<sqlite3_value*> values, sqlite3_int64* rowid);
    /// Brings rows into the file for those who read it. Throws a Refusal.
    void show();

    /// Savepoints are numbered from 0, of those that are open; a statement of several rows has one,
    /// too. To a table that joins a transaction late SQLite tells the highest only.
    void mark(int number);
    void release(int number);
    /// Undoes what came after a savepoint, which stays. Throws a Refusal.
    void undoTo(int number);

    /// Throws a Refusal; the transaction is then to be rolled back.
    void sync();
    /// After sync. What goes wrong now is told.
    void commit();
    /// Also after sync.
    void rollback();

private:
    enum class Mark : u8 { Keep, Live, Deleted };
    struct Row {
        bool isNew = false;
        Mark mark = Mark::Keep;
        u32 record = 0;  ///< from 0
    };
    struct NewValue {
        const tables::Column* column;
        tables::Encoded encoded;
    };

    void prepare();
    Row rowOf(std::span<sqlite3_value*> values);
    void encode(const Row& row, const tables::Column& column, sqlite3_value* value);
    Mark markOf(const Row& row, const tables::Column& column, sqlite3_value* value) const;
    void checkNumber(const Row& row, const tables::Column& column, sqlite3_value* value) const;
    void readValues(Row& row, std::span<sqlite3_value*> values);
    tables::Value storedValue(const tables::Column& column);
    bool isAsStored(const Row& row, const tables::Column& column, sqlite3_value* value);
    void load(u32 record);
    void makeChange();
    void writeRow(const Row& row);
    void beginStatement();
    void undoStatement();
    void undoAll();
    void noteUndone();
    void tellStale();
    void end();
    [[noreturn]] void refuse(const Row& row, const std::string& what) const;

    tables::Table& table_;
    const Columns& columns_;
    sqlite3* connection_;
    Session& session_;
    SharedFile& file_;
    std::vector<std::string> names_;        ///< the last one holds
    std::optional<tables::Change> change_;  ///< from the first row on
    int joined_ = -1;        ///< savepoints up to this one are older than the table's first row
    bool prepared_ = false;  ///< for rows of this transaction
    bool appends_ = false;   ///< and for new records
    std::optional<int> statement_;  ///< of the last UPDATE: rows changed before it
    bool startsStatement_ = false;  ///< of these none here
    std::vector<NewValue> values_;  ///< of a row; the first count_ of them
    std::size_t count_ = 0;
    std::optional<tables::CellReader> cells_;  ///< old values
    std::optional<u32> loaded_;                ///< the record in RecordBuffer, within a row
    std::set<std::string> toldStale_;          ///< once is enough
    bool lost_ = false;
};

}  // namespace mira::sql
