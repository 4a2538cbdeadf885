// What a statement changes. SQLite calls for one row after the other, so every row is checked and
// held first, and all are written when none was refused: there is no way back from a written
// record.
#pragma once

#include <span>
#include <string>
#include <utility>
#include <vector>

#include "api.h"
#include "table/store.h"
#include "table/table.h"

namespace mira::sql {

class Changes {
public:
    /// columns as declared: those of the table, then record number and deletion.
    Changes(tool::Table& table, const std::vector<tool::Column>& columns)
        : table_(table), columns_(columns) {}

    /// Takes a row of xUpdate: the old rowid or null, the new one, then the columns. Of an inserted
    /// row *rowid becomes the new record, from 1. Throws a Refusal that names column and value.
    void take(std::span<sqlite3_value*> values, sqlite3_int64* rowid);
    /// Writes what is held. Throws a Refusal that says how much of it is written.
    void write();
    /// Forgets what is held.
    void drop();

private:
    enum class Mark : u8 { Keep, Live, Deleted };
    struct Row {
        bool isNew = false;
        u32 record = 0;  ///< from 0
        Mark mark = Mark::Keep;
        std::vector<std::pair<const tool::Column*, tool::Encoded>> values{};
    };

    void prepare();
    Row rowOf(std::span<sqlite3_value*> values);
    void encode(Row& row, const tool::Column& column, sqlite3_value* value);
    void writeRow(const Row& row);
    [[noreturn]] void refuse(const Row& row, const std::string& what) const;

    tool::Table& table_;
    const std::vector<tool::Column>& columns_;
    std::vector<Row> rows_;
    u32 added_ = 0;
    bool backedUp_ = false;
};

}  // namespace mira::sql
