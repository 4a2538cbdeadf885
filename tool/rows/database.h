// Tables into a SQLite database. A new one is written beside its name and gets it when whole; one
// that is there is added to in one transaction.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "rows/output.h"
#include "rows/writer.h"
#include "sqlite/statements.h"
#include "tables.h"
#include "tables/value/storage.h"

namespace mira::tool {

using sql::Connection;
using sql::Statement;

/// Lets Ctrl-C end long statements of a connection.
void watchStops(sqlite3* connection);

enum class Present : u8 { Refuse, Replace, Append };  // what to do with a table that is there

/// CREATE TABLE without a semicolon. A calculated column that is no field's has no type, and takes
/// any value as it is.
std::string createTable(std::string_view name, const std::vector<Column>& columns);
/// Binds a value by the storage classes of tables; places count from 1. A text that does not last
/// until the statement runs is copied.
int bindValue(sqlite3_stmt* statement, int place, const Stored& stored, bool lasts);

class Database final : public RowWriter {
public:
    Database(const Target& target, bool force, Present present);
    ~Database() override;
    Database(const Database&) = delete;

    /// A name that no table written so far has.
    std::string freeName(const std::string& wanted);
    /// Creates a table; what follows are its rows. Table and columns have to stay until then.
    void addTable(const std::string& name, const Table& table, const std::vector<Column>& columns) {
        addColumns(name, &table, columns);
    }
    /// The same for rows that come from no table.
    void addAnswer(const std::string& name, const std::vector<Column>& columns) {
        addColumns(name, nullptr, columns);
    }
    void begin(const std::vector<Heading>& /*headings*/) override {}
    void cell(std::size_t column, const Value& value) override {
        const Stored stored = storedAs((*columns_)[column], value);
        if (stored.rounded) fault = Fault::Rounded;
        const bool lasts = table_ != nullptr && lastsForRecord(*table_, value.text);
        check(bindValue(insert_.get(), static_cast<int>(column) + 1, stored, lasts));
    }
    void endRow() override;
    void end() override {}
    /// Everything is written. Throws a Refusal when it could not be.
    void finish();

private:
    void check(int result) {
        if (result != SQLITE_OK) fail();
    }
    [[noreturn]] void fail();
    void addColumns(const std::string& name, const Table* table,
                    const std::vector<Column>& columns);
    void run(const std::string& sql);
    bool hasTable(const std::string& name);

    Target target_;
    bool force_;
    Present present_;
    std::unique_ptr<TemporaryFile> file_;
    Connection database_;
    Statement insert_;
    const Table* table_ = nullptr;
    const std::vector<Column>* columns_ = nullptr;
    std::set<std::string> names_;
};

}  // namespace mira::tool
