#include "attach.h"

#include "guard.h"
#include "tables/change/recovery.h"
#include "tables/open/find.h"
#include "tables/page/refusal.h"
#include "tables/value/storage.h"

namespace mira::sql {
namespace {

/// Whether the schema temp has a table of that name.
bool isTaken(sqlite3* connection, const std::string& name) {
    return sqlite3_table_column_metadata(connection, "temp", name.c_str(), nullptr, nullptr,
                                         nullptr, nullptr, nullptr, nullptr) == SQLITE_OK;
}

void attach(sqlite3_context* context, int count, sqlite3_value** values) {
    char* message = nullptr;
    const int result = guarded(&message, [&] {
        const auto* const folder = reinterpret_cast<const char*>(sqlite3_value_text(values[0]));
        if (folder == nullptr) tables::refuse("mira_attach needs a folder");
        const bool writable = count > 1 && sqlite3_value_int(values[1]) != 0;
        if (writable && sqlite3_user_data(context) != nullptr) {
            tables::refuse(folder, ": attached for reading only; `mira query --write` writes");
        }
        sqlite3* const connection = sqlite3_context_db_handle(context);
        std::string failures;
        std::size_t attached = 0;
        for (const tables::Recovery& found : tables::recoverIn(folder, false)) {
            if (found.found == tables::Found::Recovered) failures += "\n" + found.sentence;
        }
        for (const std::string& path : tables::tablesIn(folder, false)) {
            try {
                attachTable(connection, path, writable ? ", writable=1" : "");
                ++attached;
            } catch (const tables::Refusal& refusal) {
                failures += "\n" + std::string(refusal.what());
            }
        }
        const std::string report = asUtf8(tables::counted(attached, "table") + failures);
        sqlite3_result_text64(context, report.data(), report.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
        return SQLITE_OK;
    });
    if (result != SQLITE_OK) {
        sqlite3_result_error(context, message != nullptr ? message : sqlite3_errstr(result), -1);
    }
    sqlite3_free(message);
}

}  // namespace

std::string attachTable(sqlite3* connection, const std::string& path, const std::string& options) {
    std::string name = tables::freeName(
        tables::stemOf(path), [&](const std::string& free) { return !isTaken(connection, free); });
    attachAs(connection, name, path, options);
    return name;
}

void attachAs(sqlite3* connection, const std::string& name, const std::string& path,
              const std::string& options) {
    const std::string statement =
        tables::textOf("CREATE VIRTUAL TABLE temp.", tables::quotedName(name), " USING mira(",
                       tables::quotedText(path), options, ')');
    char* message = nullptr;
    if (sqlite3_exec(connection, statement.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
        const std::string why = message != nullptr ? message : "out of memory";
        sqlite3_free(message);
        throw tables::Refusal(why);
    }
}

int registerAttach(sqlite3* connection, bool readOnly) {
    static int mark;
    for (const int arguments : {1, 2}) {
        const int result = sqlite3_create_function(
            connection, "mira_attach", arguments, SQLITE_UTF8 | SQLITE_DIRECTONLY,
            readOnly ? &mark : nullptr, attach, nullptr, nullptr);
        if (result != SQLITE_OK) return result;
    }
    return SQLITE_OK;
}

}  // namespace mira::sql
