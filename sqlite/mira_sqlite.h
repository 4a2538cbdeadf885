// Tables as virtual tables of SQLite, and the function that attaches a folder of them:
//
//   CREATE VIRTUAL TABLE temp.stock USING mira('samples/stock.dbf', code_page=IBM866, ...);
//   SELECT mira_attach('samples');
#pragma once

#include "api.h"

namespace mira::sql {

/// Makes the module `mira` and the function `mira_attach` known to a connection. An SQLite result.
int registerMira(sqlite3* connection);

}  // namespace mira::sql
