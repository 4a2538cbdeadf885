// SQLite as this module calls it: through the table that a loading program hands over, or linked.
#pragma once

#ifdef MIRA_SQLITE_EXTENSION
#include <sqlite3ext.h>
SQLITE_EXTENSION_INIT3
#else
#include <sqlite3.h>
#endif
