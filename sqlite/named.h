// The tables that a statement may name: opened when it does, and not before.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "api.h"
#include "tables/column/column.h"

namespace mira::sql {

/// What is known of an open table.
struct KnownTable {
    std::vector<tables::Column> columns;
    u32 kind = 0;      ///< of the library
    std::string page;  ///< its code page
};

class NamedTables {
public:
    /// Gives a table its name, that of its file without extension, "_2" after it for a second one.
    /// options: what stands behind the path in USING mira(...).
    void add(const std::string& path, const std::string& options);
    /// Who is told that a table is not called as its file is.
    std::function<void(const std::string& sentence)> tell{};

    /// Opens a table for a connection; false when there is none of the name that is not open yet.
    /// "temp." and "main." may stand in front of it. Throws a Refusal when it cannot be opened.
    bool open(sqlite3* connection, const std::string& name);
    /// Opens all that are among the words of statements.
    void openAmong(sqlite3* connection, const std::vector<std::string>& words);
    void openAll(sqlite3* connection);

    /// To be told of every table that is open.
    void keep(const std::string& name, const tables::Table& table);
    /// By the name of an open table with that of its schema; null for others.
    const KnownTable* known(const std::string& table) const;

    /// What an error of SQLite may have meant: "; did you mean PRICE?"; empty when nobody knows.
    std::string advice(const std::string& message) const;
    std::vector<std::string> paths() const;

private:
    struct Named {
        std::string name, path, options;
        bool open = false;
    };
    void open(sqlite3* connection, Named& table) const;

    std::vector<Named> tables_;
    std::map<std::string, std::size_t> byName_;  // letter case aside
    std::map<std::string, KnownTable> known_;
};

/// The table that an error of SQLite says is not there; empty for other errors.
std::string missingTable(const std::string& message);

}  // namespace mira::sql
