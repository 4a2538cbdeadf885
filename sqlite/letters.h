// What SQL knows of letter case, for all letters: LIKE, lower, upper, the collation nocase.
// SQLite's own know ASCII alone.
#pragma once

#include "api.h"

namespace mira::sql {

/// Replaces them in a connection. An SQLite result.
int registerLetters(sqlite3* connection);

}  // namespace mira::sql
