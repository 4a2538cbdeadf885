// mira query: SQL over tables.
#include <set>

#include "command/changeoptions.h"
#include "command/command.h"
#include "rows/database.h"
#include "rows/writer.h"
#include "select/opening.h"
#include "select/selection.h"
#include "sqlite/attach.h"
#include "sqlite/letters.h"
#include "sqlite/mira_sqlite.h"
#include "tables/open/find.h"
#include "tables/page/refusal.h"
#include "terminal/message.h"
#include "terminal/status.h"

namespace mira::tool {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";

struct Options {
    std::string sql;
    TableNames tables;
    const Format* format = shownFormats().front().second;
    bool write = false;
    ChangeOptions change{};
    Deleted deleted = Deleted::Skip;
    TableOptions table;
};

[[noreturn]] void fail(sqlite3* connection) {
    leaveIfStopped();
    if (sqlite3_errcode(connection) == SQLITE_AUTH) {
        refuse("ATTACH and VACUUM INTO are refused: nothing is written without --write");
    }
    refuse(sqlite3_errmsg(connection));
}

/// Without --write nothing is, whatever the statement says: ATTACH, of which VACUUM INTO is made,
/// would make files.
int refuseAttach(void* /*nothing*/, int action, const char* /*first*/, const char* /*second*/,
                 const char* /*database*/, const char* /*inner*/) {
    return action == SQLITE_ATTACH ? SQLITE_DENY : SQLITE_OK;
}

/// Whether an IN, or a NOT IN, follows a parenthesis, as in (A, B) IN (...). The text is in
/// capitals.
bool comparesRows(std::string_view sql) {
    for (std::size_t end = sql.find(')'); end != std::string_view::npos;
         end = sql.find(')', end + 1)) {
        const std::string_view rest = trimmed(sql.substr(end + 1), kBlanks);
        if (rest.starts_with("IN") || rest.starts_with("NOT")) return true;
    }
    return false;
}

/// *status becomes what comes of what is told.
sql::Host hostFor(const Options& options, Status* status) {
    sql::Host host;
    host.tell = [status](sql::Notice notice, const std::string& sentence) {
        notice == sql::Notice::Failure ? tellError(sentence) : tell(sentence);
        constexpr Status kOf[] = {kDone, kFound, kFailed};
        *status = worse(*status, kOf[static_cast<std::size_t>(notice)]);
    };
    host.backups = !options.change.noBackup;
    host.backupCopies = options.change.backups;
    host.pageOption = "--code-page NAME";
    host.exactOption = "--exact";
    host.readOnly = !options.write;
    const std::string sql = upperAscii(options.sql);
    host.outerJoins = sql.find("JOIN") != std::string::npos;
    host.rowLists = comparesRows(sql);
    return host;
}

/// A database in memory that nothing stays of, with the module in it.
Connection openConnection(const Options& options, Status* status) {
    sqlite3* opened = nullptr;
    const int result = sqlite3_open(":memory:", &opened);
    Connection connection(opened);
    if (result != SQLITE_OK || sql::registerLetters(opened) != SQLITE_OK ||
        sql::registerMira(opened, hostFor(options, status)) != SQLITE_OK) {
        fail(opened);
    }
    if (!options.write) sqlite3_set_authorizer(opened, refuseAttach, nullptr);
    watchStops(opened);
    return connection;
}

std::string moduleOptions(const Options& options) {
    const TableOptions& table = options.table;
    std::string text =
        textOf(", deleted=", kDeletedWords[static_cast<std::size_t>(options.deleted)].first);
    if (options.write) text += ", writable=1";
    if (table.reindex) text += ", reindex=1";
    if (table.exact) text += ", exact=1";
    if (table.longNames) text += ", long_names=1";
    if (!table.asText.empty()) text += ", as_text=" + quotedText(joined(table.asText));
    if (!table.codePage.empty()) text += ", code_page=" + quotedText(table.codePage);
    return text;
}

/// kDone when all of them could be opened.
Status attachTables(sqlite3* connection, const Options& options) {
    const auto& [names, recursive] = options.tables;
    const std::vector<std::string> here{"."};
    return eachTable(
        findToRead(names.empty() ? here : names, recursive), [&](const std::string& path) {
            const std::string name = sql::attachTable(connection, path, moduleOptions(options));
            if (name != stemOf(path)) note("{} is {}", name, path);
            return kDone;
        });
}

/// Names of the columns of an answer, each another one.
std::vector<Heading> headingsOf(sqlite3_stmt* statement) {
    std::vector<Heading> headings;
    std::set<std::string> taken;
    for (int i = 0; i < sqlite3_column_count(statement); ++i) {
        const std::string name =
            freeName(sqlite3_column_name(statement, i),
                     [&](const std::string& free) { return taken.insert(free).second; });
        headings.push_back({name, true});
    }
    return headings;
}

Value valueOf(sqlite3_stmt* statement, int column) {
    Value value;
    const int type = sqlite3_column_type(statement, column);
    switch (type) {
        case SQLITE_INTEGER:
            value.kind = ValueKind::Integer;
            value.integer = sqlite3_column_int64(statement, column);
            return value;
        case SQLITE_FLOAT:
            value.kind = ValueKind::Real;
            value.real = sqlite3_column_double(statement, column);
            return value;
        case SQLITE_NULL:
            value.kind = ValueKind::Null;
            return value;
        default:
            break;
    }
    value.kind = type == SQLITE_TEXT ? ValueKind::Text : ValueKind::Bytes;
    const auto* const bytes = type == SQLITE_TEXT
                                  ? static_cast<const void*>(sqlite3_column_text(statement, column))
                                  : sqlite3_column_blob(statement, column);
    if (bytes != nullptr) {
        value.text = {static_cast<const char*>(bytes),
                      static_cast<std::size_t>(sqlite3_column_bytes(statement, column))};
    }
    return value;
}

/// Goes on to the next row; false after the last one.
bool step(sqlite3* connection, sqlite3_stmt* statement) {
    const int result = sqlite3_step(statement);
    if (result != SQLITE_ROW && result != SQLITE_DONE) fail(connection);
    return result == SQLITE_ROW;
}

u64 printRows(Output& out, const Format& format, sqlite3* connection, sqlite3_stmt* statement) {
    const std::unique_ptr<RowWriter> writer = format.make(out, {});
    const std::vector<Heading> headings = headingsOf(statement);
    writer->begin(headings);
    u64 rows = 0;
    for (; step(connection, statement); ++rows) {
        for (std::size_t i = 0; i < headings.size(); ++i) {
            writer->cell(i, valueOf(statement, static_cast<int>(i)));
        }
        writer->endRow();
    }
    writer->end();
    return rows;
}

/// Runs a statement and prints its answer, or how many records it has changed.
void runStatement(Output& out, const Format& format, sqlite3* connection, sqlite3_stmt* statement) {
    const int before = sqlite3_total_changes(connection);
    if (sqlite3_column_count(statement) == 0) {
        step(connection, statement);
        const int changed = sqlite3_total_changes(connection) - before;
        if (sqlite3_stmt_readonly(statement) == 0) {
            note("{} changed", counted(static_cast<unsigned long long>(changed), "record"));
        }
        return;
    }
    if (printRows(out, format, connection, statement) == 0) note("0 rows");
}

void runAll(Output& out, const Format& format, sqlite3* connection, const std::string& sql) {
    const char* rest = sql.c_str();
    bool any = false;
    while (*rest != 0) {
        sqlite3_stmt* prepared = nullptr;
        if (sqlite3_prepare_v2(connection, rest, -1, &prepared, &rest) != SQLITE_OK) {
            fail(connection);
        }
        const Statement statement(prepared);
        if (prepared == nullptr) continue;  // a comment, blanks
        any = true;
        runStatement(out, format, connection, prepared);
    }
    if (!any) refuse("there is no statement in the query");
}

Status run(const Options& options) {
    Status status = kDone;
    std::optional<HoldPipeSignal> hold;
    if (options.write) hold.emplace();
    const Connection connection = openConnection(options, &status);
    const Status attached = attachTables(connection.get(), options);
    Output out(targetOf("-"), false);
    runAll(out, *options.format, connection.get(), options.sql);
    out.finish();
    if (sqlite3_get_autocommit(connection.get()) == 0 && options.write) {
        refuse("there is no COMMIT after the last BEGIN or SAVEPOINT, so its changes are undone");
    }
    return worse(attached, status);
}

}  // namespace

void addQuery(CLI::App& program, Job& job) {
    const auto [command, options] = newCommand(
        program, job, "query", "SQL over tables", run,
        "Every table has the name of its file without extension. Examples:\n"
        "  mira query 'SELECT count(*) FROM stock' stock.dbf\n"
        "  mira query 'SELECT * FROM orders JOIN stock USING (CODE)' folder\n"
        "  mira query --write \"UPDATE stock SET PRICE = 0 WHERE CODE = 'A1'\" stock.dbf");
    command.add_option("sql", options.sql, "One statement or several")
        ->type_name("SQL")
        ->required();
    addTableNames(command, options.tables)
        ->description("Tables and folders; the current folder by default");
    addChoice(command, "-F,--format", namesOf(shownFormats()) + "; a table by default", "FORMAT",
              shownFormats(), options.format);
    auto* const write =
        command.add_flag("--write", options.write, "Allow INSERT, UPDATE, DELETE; makes backups");
    command
        .add_flag("--reindex", options.table.reindex,
                  "With --write, rebuild the .cdx files beside changed tables, too")
        ->needs(write);
    addBackupOptions(command, options.change);
    command.add_flag("--exact", options.table.exact,
                     "Numbers that may have more than 15 digits as text, all digits kept");
    addChoice(command, "--deleted", "Deleted records: skip (default), include or only", "WHICH",
              kDeletedWords, options.deleted);
    addTableOptions(command, options.table);
}

}  // namespace mira::tool
