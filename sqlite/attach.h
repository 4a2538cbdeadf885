// mira_attach(FOLDER [, WRITABLE]): every table of a folder as a temporary virtual table.
#pragma once

#include <string>

#include "api.h"

namespace mira::sql {

/// Makes the function known to a connection; with readOnly it attaches for reading only. An SQLite
/// result.
int registerAttach(sqlite3* connection, bool readOnly);

/// A virtual table `USING mira` in the schema temp, under the table's file name without extension,
/// "_2" after it for a second one of that name. The name it got; throws a Refusal.
std::string attachTable(sqlite3* connection, const std::string& path, const std::string& options);

/// The same under a given name. Throws a Refusal, also when there is a table of that name.
void attachAs(sqlite3* connection, const std::string& name, const std::string& path,
              const std::string& options);

}  // namespace mira::sql
