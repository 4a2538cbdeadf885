// mira query: SQL over tables.
#include <algorithm>
#include <array>
#include <ctime>
#include <exception>
#include <filesystem>
#include <optional>
#include <utility>

#include "command/changeoptions.h"
#include "command/command.h"
#include "query/newtable.h"
#include "rows/database.h"
#include "rows/writer.h"
#include "select/opening.h"
#include "select/selection.h"
#include "sqlite/answer.h"
#include "sqlite/statements.h"
#include "tables/open/find.h"
#include "tables/page/refusal.h"
#include "terminal/message.h"
#include "terminal/progress.h"
#include "terminal/status.h"
#include "write/newtable.h"

namespace mira::tool {
namespace {

constexpr u64 kTerminalRows = 50;
constexpr i64 kPatience =
    200;  // milliseconds that rows wait in the buffer while others are looked for

struct Options {
    std::vector<std::string> words;  ///< the statement, unless a file gives it, then tables
    std::string file;
    bool recursive = false;
    const Format* format = nullptr;
    std::string out;
    bool force = false;
    std::optional<u64> limit;
    std::optional<TableKind> kind;
    bool write = false;
    ChangeOptions change{};
    Deleted deleted = Deleted::Skip;
    TableOptions table;
};

/// Where answers go.
struct Sink {
    const Format* format = nullptr;  ///< null: a new table
    Target target;
    std::optional<Output> out{};
    std::optional<Database> database{};
    std::optional<u64> limit{};  ///< rows to show
    bool counts = false;         ///< and then how many more there are
    bool filled = false;         ///< of what holds one answer
};

/// The work of one call.
struct Query {
    const Options& options;
    std::string sql;
    Status status = kDone;
    sql::NamedTables tables{};
    sql::Connection connection{};
    Sink sink{};
    RowWriter* rows = nullptr;  ///< while an answer is written
    i64 written = 0;            ///< when rows were last brought to where they go
    std::exception_ptr failure{};
    const void* scan = nullptr;  ///< whose progress is shown: the outermost
    u64 scanned = 0;
    std::optional<Progress> progress{};
};

/// Milliseconds of a clock that costs little to ask.
i64 now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &time);
    constexpr i64 kThousand = 1000, kMillion = 1000000;
    return i64{time.tv_sec} * kThousand + time.tv_nsec / kMillion;
}

/// Rows that have been found go out, also when the next is long in coming.
void bringOut(Query& query) {
    if (query.rows == nullptr || !query.sink.out) return;
    const i64 time = now();
    if (time - query.written < kPatience) return;
    query.written = time;
    if (query.sink.out->isTerminal()) query.rows->show();
    query.sink.out->flush();
}

[[noreturn]] void fail(const Query& query) {
    leaveIfStopped();
    if (query.failure) std::rethrow_exception(query.failure);
    refuse(sql::failureOf(query.connection.get(), query.tables, " without --write"));
}

// --------------------------------------------------------------------------------------------
// The connection
// --------------------------------------------------------------------------------------------

/// SQLite calls it every few thousand steps, and no exception may go through there.
int onSteps(void* of) {
    Query& query = *static_cast<Query*>(of);
    try {
        if (stopped()) return 1;
        bringOut(query);
        return 0;
    } catch (...) {
        query.failure = std::current_exception();
        return 1;
    }
}

/// Of the scans within each other the outermost tells how far the statement is.
void onScan(Query& query, const sql::ScanState& state) {
    leaveIfStopped();
    bringOut(query);
    if (query.scan == nullptr && state.done == 0) {
        query.scan = state.scan;
        query.scanned = 0;
        query.progress.emplace(state.path, state.records);
    }
    if (query.scan != state.scan) return;
    query.progress->add(state.done - std::min(state.done, query.scanned));
    query.scanned = state.done;
    if (state.done == state.records) query.scan = nullptr;
}

sql::Host hostFor(Query& query) {
    const Options& options = query.options;
    sql::Host host;
    host.tell = [&query](sql::Notice notice, const std::string& sentence) {
        notice == sql::Notice::Failure ? tellError(sentence) : tell(sentence);
        constexpr Status kOf[] = {kDone, kFound, kFailed};
        query.status = worse(query.status, kOf[static_cast<std::size_t>(notice)]);
    };
    host.scanned = [&query](const sql::ScanState& state) { onScan(query, state); };
    host.backups = !options.change.noBackup;
    host.backupCopies = options.change.backups;
    host.pageOption = "--code-page NAME";
    host.exactOption = "--exact";
    host.readOnly = !options.write;
    return host;
}

void openConnection(Query& query) {
    constexpr int kSteps = 10000;
    const int result =
        sql::openConnection(query.connection, hostFor(query), query.sql, query.tables);
    if (result != SQLITE_OK) fail(query);
    sqlite3_progress_handler(query.connection.get(), kSteps, onSteps, &query);
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

/// Names the tables; in the current folder there need be none. kDone when all were found.
Status nameTables(Query& query, const std::vector<std::string>& names) {
    const std::string module = moduleOptions(query.options);
    query.tables.tell = [](const std::string& sentence) { note("{}", sentence); };
    std::vector<std::string> found;
    if (!names.empty()) {
        found = findToRead(names, query.options.recursive);
    } else if (!tablesIn(".", query.options.recursive).empty()) {
        found = findToRead({"."}, query.options.recursive);
    }
    if (found.empty()) return kDone;
    return eachTable(found, [&](const std::string& name) {
        query.tables.add(findTable(name), module);
        return kDone;
    });
}

// --------------------------------------------------------------------------------------------
// Statements
// --------------------------------------------------------------------------------------------

/// How many values a format did not keep, by fault.
using Unkept = std::array<u64, tables::kFaults>;

/// Goes on to the next row; false after the last one.
bool step(const Query& query, sqlite3_stmt* statement) {
    const int result = sqlite3_step(statement);
    if (result != SQLITE_ROW && result != SQLITE_DONE) fail(query);
    return result == SQLITE_ROW;
}

struct RowCount {
    u64 shown = 0, all = 0;
};

void writeCells(sql::Answer& answer, RowWriter& writer, Unkept& unkept) {
    for (std::size_t i = 0; i < answer.columns().size(); ++i) {
        writer.cell(i, answer.value(i));
        if (writer.fault != Fault::None) {
            ++unkept[static_cast<std::size_t>(std::exchange(writer.fault, Fault::None))];
        }
    }
    writer.endRow();
}

void tellUnkept(Query& query, const Unkept& unkept) {
    for (std::size_t fault = 0; fault < unkept.size(); ++fault) {
        if (unkept[fault] == 0) continue;
        tell(faultSentence(static_cast<Fault>(fault), unkept[fault]));
        query.status = worse(query.status, kFound);
    }
}

/// Rows to a writer, as they are found.
RowCount copyRows(Query& query, sqlite3_stmt* statement, sql::Answer& answer, RowWriter& writer) {
    const Sink& sink = query.sink;
    RowCount rows;
    Unkept unkept{};
    query.rows = &writer;
    query.written = now();
    while ((!sink.limit || sink.counts || rows.all < *sink.limit) && step(query, statement)) {
        ++rows.all;
        if (sink.limit && rows.all > *sink.limit) continue;
        writeCells(answer, writer, unkept);
        ++rows.shown;
        bringOut(query);
        if (sink.limit && sink.counts && rows.shown == *sink.limit) {
            writer.show();
            if (sink.out) query.sink.out->flush();
        }
    }
    query.rows = nullptr;
    query.scan = nullptr;
    query.progress.reset();
    tellUnkept(query, unkept);
    return rows;
}

void refuseSecond(Sink& sink) {
    if (std::exchange(sink.filled, true)) {
        refuse(sink.target.name, ": holds the rows of one statement, and there are several");
    }
}

std::vector<Heading> headingsOf(const sql::Answer& answer) {
    std::vector<Heading> headings;
    for (std::size_t i = 0; i < answer.columns().size(); ++i) {
        const Column& column = answer.columns()[i];
        headings.push_back(
            {column.name, answer.mayBeNull(i), answer.isOfTable(i) ? &column : nullptr});
    }
    return headings;
}

RowCount intoTable(Query& query, sqlite3_stmt* statement, sql::Answer& answer) {
    const Options& options = query.options;
    refuseSecond(query.sink);
    NewTableRows rows(answer, options.kind, options.table.codePage);
    rows.begin(headingsOf(answer));
    const RowCount count = copyRows(query, statement, answer, rows);
    ChangeOptions change = options.change;
    change.force = options.force;
    query.status = worse(query.status, rows.make(query.sink.target.path, change));
    return count;
}

RowCount intoDatabase(Query& query, sqlite3_stmt* statement, sql::Answer& answer) {
    Database& database = *query.sink.database;
    database.addAnswer(database.freeName("query"), answer.columns());
    return copyRows(query, statement, answer, database);
}

RowCount intoText(Query& query, sqlite3_stmt* statement, sql::Answer& answer) {
    const std::unique_ptr<RowWriter> writer = query.sink.format->make(*query.sink.out, {});
    writer->begin(headingsOf(answer));
    const RowCount rows = copyRows(query, statement, answer, *writer);
    writer->end();
    if (writer->columnsCut != 0) {
        query.sink.out->flush();
        note("{} of {} do not fit; name some in the statement, or -F jsonl shows all",
             writer->columnsCut, counted(answer.columns().size(), "column"));
    }
    return rows;
}

void answerRows(Query& query, sqlite3_stmt* statement) {
    sql::Answer answer(statement, query.tables);
    const Sink& sink = query.sink;
    const RowCount rows = sink.database ? intoDatabase(query, statement, answer)
                          : sink.out    ? intoText(query, statement, answer)
                                        : intoTable(query, statement, answer);
    const u64 more = rows.all - rows.shown;
    const bool isTable = !sink.database && !sink.out;  // which has been told
    if (isTable) return;
    if (!sink.target.path.empty() || rows.all == 0) {
        note("{}{}", sink.target.path.empty() ? "" : sink.target.name + ": ",
             counted(rows.shown, "row"));
    } else if (more != 0) {
        query.sink.out->flush();
        note("{} more; -n 0 shows all", counted(more, "row"));
    }
}

/// Runs a statement and prints its answer, or how many records it has changed.
void runStatement(Query& query, sqlite3_stmt* statement) {
    sqlite3* const connection = query.connection.get();
    const int before = sqlite3_total_changes(connection);
    if (sqlite3_column_count(statement) != 0) return answerRows(query, statement);
    step(query, statement);
    query.scan = nullptr;
    query.progress.reset();
    const int changed = sqlite3_total_changes(connection) - before;
    if (sqlite3_stmt_readonly(statement) == 0) {
        note("{} changed", counted(static_cast<unsigned long long>(changed), "record"));
    }
}

void runAll(Query& query) {
    const char* rest = query.sql.c_str();
    bool any = false;
    while (*rest != 0) {
        sql::Statement statement;
        const int result = sql::prepareNext(query.connection.get(), &rest, query.tables, statement);
        if (result != SQLITE_OK) fail(query);
        if (!statement) continue;  // a comment, blanks
        any = true;
        runStatement(query, statement.get());
    }
    if (!any) refuse("there is no statement in the query");
}

// --------------------------------------------------------------------------------------------
// The command
// --------------------------------------------------------------------------------------------

std::string readStatements(const std::string& name) {
    const File file = openInput(name);
    std::string sql;
    char buffer[4096];
    while (const std::size_t got = std::fread(buffer, 1, sizeof buffer, file.get())) {
        sql.append(buffer, got);
    }
    leaveIfStopped();
    const std::string shown = name == "-" ? "standard input" : name;
    if (std::ferror(file.get()) != 0) refuse(shown, ": cannot be read");
    constexpr std::string_view kMark = "\xEF\xBB\xBF";
    if (sql.starts_with(kMark)) sql.erase(0, kMark.size());
    if (sql.find('\0') != std::string::npos) refuse(shown, ": is no text");
    return sql;
}

/// Takes the statements, and leaves the tables.
std::string statementsOf(const Options& options, std::vector<std::string>* tables) {
    *tables = options.words;
    if (!options.file.empty()) return readStatements(options.file);
    if (tables->empty()) refuse("a statement is missing; `mira query --help` says how");
    const std::string sql = tables->front();
    tables->erase(tables->begin());
    // No statement is one word without parentheses.
    if (sql != "-" && sql.find_first_of(" \t\n(;") == std::string::npos) {
        refuse(sql,
               ": is no statement; that comes first, then tables and folders; -f FILE reads "
               "statements from a file");
    }
    return sql == "-" ? readStatements(sql) : sql;
}

bool isTableName(const std::string& name) {
    return sameText(std::filesystem::path(name).extension().string(), ".dbf");
}

/// By -F, by the name of the output, else a table for eyes.
const Format* formatOf(const Options& options, const Target& target) {
    const bool named = !target.path.empty() && target.regular;
    const Format* format = options.format;
    if (format == nullptr && named) {
        format = formatOfExtension(std::filesystem::path(options.out).extension().string());
        if (format == nullptr) {
            refuse(options.out, ": its name tells no format; -F ", namesOf(answerFormats()),
                   " does");
        }
    }
    if (format == nullptr) format = shownFormats().front().second;
    if (format->make == nullptr && !named) refuse("a database needs -o NAME.db");
    return format;
}

/// Where answers go, looked at before anything runs.
void openSink(Query& query) {
    const Options& options = query.options;
    Sink& sink = query.sink;
    const bool table = options.format == nullptr && isTableName(options.out);
    if (options.kind && !table) refuse("--kind is for -o NAME.dbf only");
    const bool backups =
        options.change.noBackup || options.change.backups != ChangeOptions{}.backups;
    if (backups && !table && !options.write) {
        refuse("--no-backup and --backups are for --write and -o NAME.dbf only");
    }
    sink.target = targetOf(options.out.empty() ? "-" : options.out);
    sink.limit = options.limit == u64{0} ? std::nullopt : options.limit;
    if (!table) sink.format = formatOf(options, sink.target);
    const bool database = !table && sink.format->make == nullptr;
    // A new table is looked at by what makes it, and a database that is there is added to.
    checkTargets({sink.target}, options.force || table || database,
                 sink.target.exists ? query.tables.paths() : std::vector<std::string>());
    if (table) {
        ChangeOptions change;
        change.force = options.force;
        newTableTarget(options.out, change, "--force replaces it");
    } else if (database) {
        sink.database.emplace(sink.target, options.force, Present::Refuse);
    } else {
        sink.out.emplace(sink.target, options.force);
        const bool shown = sink.format == shownFormats().front().second;
        sink.counts = !options.limit && shown && sink.out->isTerminal();
        if (sink.counts) sink.limit = kTerminalRows;
    }
}

Status run(const Options& options) {
    std::vector<std::string> tables;
    std::optional<HoldPipeSignal>
        hold;  // longer than the connection, which takes back what is open
    if (options.write) hold.emplace();
    Query query{options, statementsOf(options, &tables)};
    openConnection(query);
    const Status named = nameTables(query, tables);
    openSink(query);
    sql::openBeforehand(query.connection.get(), query.sql, options.write, query.tables);
    runAll(query);
    if (query.sink.out) query.sink.out->finish();
    if (query.sink.database) query.sink.database->finish();
    if (sqlite3_get_autocommit(query.connection.get()) == 0 && options.write) {
        refuse("there is no COMMIT after the last BEGIN or SAVEPOINT, so its changes are undone");
    }
    return worse(named, query.status);
}

}  // namespace

void addQuery(CLI::App& program, Job& job) {
    const auto [command, options] = newCommand(
        program, job, "query", "SQL over tables", run,
        "Every table has the name of its file without extension. Examples:\n"
        "  mira query 'SELECT count(*) FROM stock' stock.dbf\n"
        "  mira query 'SELECT * FROM orders JOIN stock USING (CODE)' folder\n"
        "  mira query 'SELECT CODE, sum(QTY) AS QTY FROM orders GROUP BY 1' -o totals.dbf\n"
        "  mira query -f report.sql tables.zip -o report.csv\n"
        "  mira query --write \"UPDATE stock SET PRICE = 0 WHERE CODE = 'A1'\" stock.dbf");
    command
        .add_option("words", options.words,
                    "One statement or several, - for standard input (none with -f); then tables "
                    "and folders, the current folder by default")
        ->type_name("SQL TABLE|FOLDER");
    command.add_option("-f,--file", options.file, "A file with the statements")->type_name("FILE");
    command.add_flag("-R,--recursive", options.recursive, "Folders with those below them");
    addChoice(command, "-F,--format", namesOf(answerFormats()) + "; a table for eyes by default",
              "FORMAT", answerFormats(), options.format);
    command
        .add_option("-o,--output", options.out,
                    "File, database or, as NAME.dbf, new table; - for standard output")
        ->type_name("OUT");
    command.add_flag("--force", options.force, "Replace a file that is there");
    addChoice(command, "--kind",
              "Of a new table: dbase3, dbase4, foxpro, visual, smt or level7 (default: that of the "
              "first table in the answer, but for level7; else dbase3)",
              "KIND", kKindWords, options.kind);
    addCount(command, "-n,--limit", "At most N rows, 0 for all (default: 50 on a terminal)",
             options.limit);
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
