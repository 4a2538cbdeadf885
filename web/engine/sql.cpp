#include "sql.h"

#include <memory>
#include <set>

#include "cells.h"
#include "sqlite/attach.h"
#include "sqlite/letters.h"
#include "sqlite/mira_sqlite.h"
#include "tables/page/refusal.h"
#include "tables/page/text.h"
#include "tables/value/storage.h"
#include "tables/value/value.h"

namespace mira::page {
namespace {

using namespace tables;

constexpr std::size_t kRows = 1000000;     // at most, of an answer
constexpr std::size_t kBytes = 32U << 20;  // and letters

struct Closer {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Connection = std::unique_ptr<sqlite3, Closer>;
using Statement = std::unique_ptr<sqlite3_stmt, Closer>;

[[noreturn]] void fail(sqlite3* connection) {
    if (sqlite3_errcode(connection) == SQLITE_AUTH) {
        refuse("ATTACH and VACUUM INTO are refused: nothing is written");
    }
    refuse(sqlite3_errmsg(connection));
}

int refuseAttach(void* /*nothing*/, int action, const char* /*first*/, const char* /*second*/,
                 const char* /*database*/, const char* /*inner*/) {
    return action == SQLITE_ATTACH ? SQLITE_DENY : SQLITE_OK;
}

Connection openConnection(Answer& answer) {
    sqlite3* opened = nullptr;
    const int result = sqlite3_open(":memory:", &opened);
    Connection connection(opened);
    sql::Host host;
    host.tell = [&answer](sql::Notice, const std::string& sentence) {
        answer.notes.push_back(sentence);
    };
    host.pageOption = "the list \"Code page\"";
    host.readOnly = true;
    if (result != SQLITE_OK || sql::registerLetters(opened) != SQLITE_OK ||
        sql::registerMira(opened, host) != SQLITE_OK) {
        fail(opened);
    }
    sqlite3_set_authorizer(opened, refuseAttach, nullptr);
    return connection;
}

void attachTables(sqlite3* connection, const std::vector<SqlTable>& tables, Answer& answer) {
    for (const SqlTable& table : tables) {
        std::string options = ", deleted=skip";
        if (!table.codePage.empty()) options += ", code_page=" + quotedText(table.codePage);
        try {
            sql::attachTable(connection, table.path, options);
        } catch (const Refusal& refusal) {
            answer.notes.emplace_back(refusal.what());
        }
    }
}

Value valueOf(sqlite3_stmt* statement, int column) {
    Value value;
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
    switch (sqlite3_column_type(statement, column)) {
        case SQLITE_INTEGER:
            value.kind = ValueKind::Integer;
            value.integer = sqlite3_column_int64(statement, column);
            break;
        case SQLITE_FLOAT:
            value.kind = ValueKind::Real;
            value.real = sqlite3_column_double(statement, column);
            break;
        case SQLITE_TEXT:
            value.kind = ValueKind::Text;
            value.text = {reinterpret_cast<const char*>(sqlite3_column_text(statement, column)),
                          size};
            break;
        case SQLITE_BLOB:
            value.kind = ValueKind::Bytes;
            if (size != 0) {
                value.text = {static_cast<const char*>(sqlite3_column_blob(statement, column)),
                              size};
            }
            break;
        default:
            value.kind = ValueKind::Null;
    }
    return value;
}

void beginAnswer(sqlite3_stmt* statement, Answer& answer) {
    answer.columns.clear();
    answer.rows.clear();
    answer.csv.clear();
    answer.cut = false;
    std::set<std::string> taken;
    for (int i = 0; i < sqlite3_column_count(statement); ++i) {
        answer.columns.push_back(
            freeName(sqlite3_column_name(statement, i),
                     [&](const std::string& free) { return taken.insert(free).second; }));
        if (i != 0) answer.csv += ',';
        putCsvText(answer.csv, answer.columns.back());
    }
    answer.csv += '\n';
    answer.numbers.assign(answer.columns.size(), true);
}

void addRow(sqlite3_stmt* statement, Answer& answer) {
    std::string& row = answer.rows.emplace_back("[");
    for (std::size_t i = 0; i < answer.columns.size(); ++i) {
        const Value value = valueOf(statement, static_cast<int>(i));
        if (value.kind == ValueKind::Text || value.kind == ValueKind::Bytes) {
            answer.numbers[i] = false;
        }
        if (i != 0) row += ',', answer.csv += ',';
        putCell(row, value);
        putCsv(answer.csv, value, true);
    }
    row += ']';
    answer.csv += '\n';
}

void runStatement(sqlite3* connection, sqlite3_stmt* statement, Answer& answer) {
    if (sqlite3_column_count(statement) != 0) beginAnswer(statement, answer);
    std::size_t bytes = 0;
    while (true) {
        const int result = sqlite3_step(statement);
        if (result == SQLITE_DONE) return;
        if (result != SQLITE_ROW) fail(connection);
        answer.cut = answer.rows.size() == kRows || bytes > kBytes;
        if (answer.cut) return;
        addRow(statement, answer);
        bytes += answer.rows.back().size();
    }
}

}  // namespace

Answer answerOf(const std::string& sql, const std::vector<SqlTable>& tables) {
    Answer answer;
    {
        const Connection connection = openConnection(answer);
        attachTables(connection.get(), tables, answer);
        bool any = false;
        for (const char* rest = sql.c_str(); *rest != 0;) {
            sqlite3_stmt* prepared = nullptr;
            if (sqlite3_prepare_v2(connection.get(), rest, -1, &prepared, &rest) != SQLITE_OK) {
                fail(connection.get());
            }
            const Statement statement(prepared);
            if (prepared == nullptr) continue;  // a comment, blanks
            any = true;
            runStatement(connection.get(), prepared, answer);
        }
        if (!any) refuse("there is no statement in the query");
    }
    return answer;
}

}  // namespace mira::page
