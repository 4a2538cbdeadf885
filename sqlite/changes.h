// What a statement changes. SQLite calls for one row after the other, so every row is checked and
// held first, and all are written when none was refused: there is no way back from a written
// record.
#pragma once

#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "api.h"
#include "columns.h"
#include "mira_sqlite.h"
#include "tables/change/change.h"
#include "tables/store/store.h"
#include "tables/value/value.h"

namespace mira::sql {

class Changes {
public:
    Changes(tables::Table& table, const Columns& columns, const Host& host)
        : table_(table), columns_(columns), host_(host) {}

    /// Before a statement: makes sure that what the table's name leads to is what is written.
    /// Throws a Refusal.
    void begin();
    /// Takes a row of xUpdate: the old rowid or null, the new one, then the columns. Of an inserted
    /// row *rowid becomes the new record, from 1. Throws a Refusal that names column and value.
    void take(std::span<sqlite3_value*> values, sqlite3_int64* rowid);
    /// Writes what is held. Throws a Refusal that says how much of it is written.
    void write();
    /// Forgets what is held.
    void drop();
    /// Throws a Refusal once the table has been found to have other fields than were declared.
    void refuseLost() const;

private:
    enum class Mark : u8 { Keep, Live, Deleted };
    struct Row {
        bool isNew = false;
        Mark mark = Mark::Keep;
        u16 values = 0;  ///< how many of values_
        u32 record = 0;  ///< from 0
    };
    struct HeldValue {
        u16 column;
        bool isNull, partial;
        u32 memoSize;
    };

    void prepare();
    Row rowOf(std::span<sqlite3_value*> values);
    void encode(Row& row, std::size_t column, sqlite3_value* value);
    Mark markOf(const Row& row, const tables::Column& column, sqlite3_value* value) const;
    void checkNumber(const Row& row, const tables::Column& column, sqlite3_value* value) const;
    void readValues(Row& row, std::span<sqlite3_value*> values);
    bool isAsStored(const Row& row, const tables::Column& column, sqlite3_value* value);
    void putValues(tables::Change& change, const Row& row);
    void writeRow(tables::Change& change, const Row& row);
    void writeRows();
    [[noreturn]] void refuse(const Row& row, const std::string& what) const;

    tables::Table& table_;
    const Columns& columns_;
    const Host& host_;
    // A statement may change a million rows, so they are held with little around their bytes: the
    // values of all rows one after the other, and each one's field and memo bytes likewise.
    std::vector<Row> rows_;
    std::vector<HeldValue> values_;
    std::string bytes_;
    std::size_t nextValue_ = 0, nextByte_ = 0;  ///< to be written
    tables::Encoded encoded_;
    std::optional<tables::CellReader> cells_;  ///< old values
    std::optional<u32> cellsOf_;               ///< of which record
    u32 added_ = 0;
    bool backedUp_ = false;
    std::set<std::string> toldStale_;  ///< once is enough
    bool lost_ = false;
};

}  // namespace mira::sql
