// The loadable extension: .load mira_sqlite, or sqlite3_load_extension.
#include "guard.h"
#include "mira_sqlite.h"

SQLITE_EXTENSION_INIT1

extern "C" __attribute__((visibility("default"))) int sqlite3_mirasqlite_init(
    sqlite3* connection, char** message, const sqlite3_api_routines* api) {
    SQLITE_EXTENSION_INIT2(api)
    if (sqlite3_libversion_number() < 3031000) {  // SQLITE_VTAB_DIRECTONLY
        mira::sql::setMessage(message, "mira needs SQLite 3.31 or newer");
        return SQLITE_ERROR;
    }
    return mira::sql::registerMira(connection);
}
