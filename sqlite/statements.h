// What runs the statements of others over named tables: the program and the page.
#pragma once

#include <memory>
#include <string>

#include "mira_sqlite.h"
#include "named.h"

namespace mira::sql {

struct Closer {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Connection = std::unique_ptr<sqlite3, Closer>;
using Statement = std::unique_ptr<sqlite3_stmt, Closer>;

/// Opens a database in memory that nothing stays of, with the module and its letters in it. The
/// host is told what the statements may hold, and its tables become known. A read-only one refuses
/// ATTACH and VACUUM INTO. The tables must outlive it. An SQLite result.
int openConnection(Connection& connection, Host host, const std::string& sql, NamedTables& tables);

/// A transaction does not take in tables that are opened within it, and pragmas name none that
/// could be missed: their tables, and with `writing` all that are named, are opened first. Throws a
/// Refusal.
void openBeforehand(sqlite3* connection, const std::string& sql, bool writing, NamedTables& tables);

/// The next statement, once all the tables that it names are open; null for a comment. An SQLite
/// result; throws a Refusal for a table that cannot be opened.
int prepareNext(sqlite3* connection, const char** rest, NamedTables& tables, Statement& statement);

/// Why a statement failed; without: "without --write", or whatever else would allow to write.
std::string failureOf(sqlite3* connection, const NamedTables& tables, const char* without);

}  // namespace mira::sql
