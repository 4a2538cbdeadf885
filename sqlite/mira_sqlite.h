// Tables as virtual tables of SQLite, and the function that attaches a folder of them:
//
//   CREATE VIRTUAL TABLE temp.stock USING mira('samples/stock.dbf', code_page=IBM866, ...);
//   SELECT mira_attach('samples');
#pragma once

#include <string>

#include "api.h"

namespace mira::sql {

/// Told what is odd about a table that is read, and what a write leaves stale.
using Warn = void (*)(const std::string& sentence);
/// Into SQLite's error log.
void logWarning(const std::string& sentence);

/// Makes the module `mira` and the function `mira_attach` known to a connection. An SQLite result.
int registerMira(sqlite3* connection, Warn warn = logWarning);

}  // namespace mira::sql
