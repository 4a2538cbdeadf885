#include "statements.h"

#include <algorithm>
#include <utility>

#include "letters.h"
#include "tables/page/text.h"
#include "words.h"

namespace mira::sql {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";

/// Where nothing is to be written nothing is, whatever the statement says: ATTACH, of which VACUUM
/// INTO is made, would make files.
int refuseAttach(void* /*nothing*/, int action, const char* /*first*/, const char* /*second*/,
                 const char* /*database*/, const char* /*inner*/) {
    return action == SQLITE_ATTACH ? SQLITE_DENY : SQLITE_OK;
}

/// Whether an IN, or a NOT IN, follows a parenthesis, as in (A, B) IN (...). The text is in
/// capitals.
bool comparesRows(std::string_view sql) {
    for (std::size_t end = sql.find(')'); end != std::string_view::npos;
         end = sql.find(')', end + 1)) {
        const std::string_view rest = tables::trimmed(sql.substr(end + 1), kBlanks);
        if (rest.starts_with("IN") || rest.starts_with("NOT")) return true;
    }
    return false;
}

}  // namespace

int openConnection(Connection& connection, Host host, const std::string& sql, NamedTables& tables) {
    const std::string upper = tables::upperAscii(sql);
    host.outerJoins = upper.find("JOIN") != std::string::npos;
    host.rowLists = comparesRows(upper);
    host.opened = [&tables](const std::string& name, const tables::Table& table) {
        tables.keep(name, table);
    };
    sqlite3* opened = nullptr;
    int result = sqlite3_open(":memory:", &opened);
    connection.reset(opened);
    if (result == SQLITE_OK) result = registerLetters(opened);
    if (result == SQLITE_OK) result = registerMira(opened, host);
    if (result == SQLITE_OK && host.readOnly) sqlite3_set_authorizer(opened, refuseAttach, nullptr);
    return result;
}

void openBeforehand(sqlite3* connection, const std::string& sql, bool writing,
                    NamedTables& tables) {
    const std::vector<std::string> words = sqlWords(sql);
    const auto isSchema = [](const std::string& word) {
        return tables::foldCase(word).starts_with("sqlite_");
    };
    if (std::any_of(words.begin(), words.end(), isSchema)) {
        tables.openAll(connection);
    } else if (writing || tables::upperAscii(sql).find("PRAGMA") != std::string::npos) {
        tables.openAmong(connection, words);
    }
}

int prepareNext(sqlite3* connection, const char** rest, NamedTables& tables, Statement& statement) {
    while (true) {
        sqlite3_stmt* prepared = nullptr;
        const char* end = nullptr;
        const int result = sqlite3_prepare_v2(connection, *rest, -1, &prepared, &end);
        statement.reset(prepared);
        if (result == SQLITE_OK) {
            *rest = end;
            return result;
        }
        const std::string missing = missingTable(sqlite3_errmsg(connection));
        if (missing.empty() || !tables.open(connection, missing)) return result;
    }
}

std::string failureOf(sqlite3* connection, const NamedTables& tables, const char* without) {
    if (sqlite3_errcode(connection) == SQLITE_AUTH) {
        return tables::textOf("ATTACH and VACUUM INTO are refused: nothing is written", without);
    }
    const std::string message = sqlite3_errmsg(connection);
    return message + tables.advice(message);
}

}  // namespace mira::sql
