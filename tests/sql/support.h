// Connections that know the module, and answers as text.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>
#include <vector>

#include "sqlite/mira_sqlite.h"
#include "support/tables.h"

namespace test {

struct ConnectionCloser {
    void operator()(sqlite3* connection) const { sqlite3_close(connection); }
};
using Connection = std::unique_ptr<sqlite3, ConnectionCloser>;

inline Connection connect(const std::string& path = ":memory:") {
    sqlite3* connection = nullptr;
    sqlite3_open(path.c_str(), &connection);
    mira::sql::registerMira(connection);
    return Connection(connection);
}

/// The rows of an answer, cells parted by "|", with the storage class before each when wanted; or
/// the message of the error.
inline std::vector<std::string> answer(const Connection& connection, const std::string& query,
                                       bool classes = false) {
    std::vector<std::string> rows;
    sqlite3_stmt* statement = nullptr;
    int result = sqlite3_prepare_v2(connection.get(), query.c_str(), -1, &statement, nullptr);
    while (result == SQLITE_OK || result == SQLITE_ROW) {
        result = sqlite3_step(statement);
        if (result != SQLITE_ROW) break;
        std::string row;
        for (int i = 0; i < sqlite3_column_count(statement); ++i) {
            if (i != 0) row += '|';
            if (classes) row += std::to_string(sqlite3_column_type(statement, i)) + ':';
            const auto* const bytes = static_cast<const char*>(sqlite3_column_blob(statement, i));
            const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, i));
            if (bytes != nullptr) row.append(bytes, size);
        }
        rows.push_back(row);
    }
    if (result != SQLITE_DONE) rows = {sqlite3_errmsg(connection.get())};
    sqlite3_finalize(statement);
    return rows;
}

/// An empty table with a memo file: ID counts from 1, and so is the record's number; NAME, QTY, a
/// number of 20 digits, and a memo.
inline void writeNotes(const std::string& path) {
    Layout layout{
        0x30,
        {{"ID", 'I', 4}, {"NAME", 'C', 8}, {"QTY", 'N', 5}, {"WIDE", 'N', 20}, {"NOTE", 'M', 4}}};
    layout.backLink = std::string(263, '\0');
    std::string bytes = layout.bytes();
    bytes.replace(32 + 18, 6, "\x0C" + le(1, 4) + le(1, 1));
    writeAll(path, bytes);
    writeAll(std::filesystem::path(path).replace_extension("fpt"),
             padded(be(8, 4) + be(64, 4), 512, 0));
}

/// CREATE VIRTUAL TABLE temp.NAME; the error, or nothing.
inline std::vector<std::string> attach(const Connection& connection, const std::string& name,
                                       const std::string& path, const std::string& options = "") {
    return answer(connection, "CREATE VIRTUAL TABLE temp." + name + " USING mira('" + path + "'" +
                                  options + ")");
}

}  // namespace test
