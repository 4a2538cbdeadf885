// What DuckDB calls when it loads the extension: its name is that of the file.
#include "duckdb/functions.h"

extern "C" __attribute__((visibility("default"))) bool mira_init_c_api(
    duckdb_extension_info info, duckdb_extension_access* access);

extern "C" bool mira_init_c_api(duckdb_extension_info info, duckdb_extension_access* access) {
    using namespace mira::duck;
    const void* const api = access->get_api(info, DUCKDB_EXTENSION_API_VERSION_STRING);
    if (api == nullptr) return false;  // DuckDB has told why
    // The same for every database of the process, some of which may be reading already.
    static const bool once = [&] {
        duckdb_ext_api = *static_cast<const duckdb_ext_api_v1*>(api);
        return true;
    }();
    bool added = once;
    const auto fail = [&](const char* why) {
        access->set_error(info, why);
        added = false;
    };
    duckdb_connection connection = nullptr;
    if (duckdb_connect(*access->get_database(info), &connection) == DuckDBError) {
        fail("mira: no connection to the database");
        return false;
    }
    guarded(fail, [&] {
        const auto warnings = std::make_shared<Warnings>();
        if (!addReader(connection, warnings) || !addInfo(connection) ||
            !addWarnings(connection, warnings)) {
            fail("mira: DuckDB refuses read_dbf, dbf_info or dbf_warnings");
        }
    });
    duckdb_disconnect(&connection);
    return added;
}
