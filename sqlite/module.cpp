// The methods that SQLite calls. Each passes on to the module's own functions and turns what they
// throw into a result and a message.
#include "module.h"

#include <utility>

#include "attach.h"
#include "guard.h"
#include "mira_sqlite.h"
#include "tables/change/recovery.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"

namespace mira::sql {
namespace {

using tables::Column;

/// A virtual table has at most 2000 columns.
constexpr std::size_t kColumnMax = 2000 - kHiddenColumns;

std::vector<Column> declaredColumns(const tables::Table& table) {
    std::vector<Column> columns = table.columns;
    columns.push_back(tables::extraColumn(table, "_record", tables::Kind::RecordNumber));
    columns.push_back(tables::extraColumn(table, "_deleted", tables::Kind::Deletion));
    return columns;
}

std::string declaration(const std::vector<Column>& columns) {
    std::string text = "CREATE TABLE x(";
    for (std::size_t i = 0; i < columns.size(); ++i) {
        if (i != 0) text += ", ";
        text += tables::quotedName(columns[i].name) + " " +
                tables::storageName(tables::declaredStorage(columns[i]));
        if (i + kHiddenColumns >= columns.size()) text += " HIDDEN";
    }
    return text + ")";
}

bool isUtf8(sqlite3* connection) {
    sqlite3_stmt* statement = nullptr;
    bool utf8 = false;
    if (sqlite3_prepare_v2(connection, "PRAGMA encoding", -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW) {
        const unsigned char* const name = sqlite3_column_text(statement, 0);
        utf8 =
            name != nullptr && sqlite3_stricmp(reinterpret_cast<const char*>(name), "UTF-8") == 0;
    }
    sqlite3_finalize(statement);
    return utf8;
}

int connect(sqlite3* connection, void* warn, int count, const char* const* texts,
            sqlite3_vtab** result, char** message) {
    // The first three are the names of module, database and table.
    constexpr int kNames = 3;
    return guarded(message, [&] {
        auto made = std::make_unique<VirtualTable>();
        made->connection = connection;
        made->warn = reinterpret_cast<Warn>(warn);
        made->arguments = readArguments(count - kNames, texts + kNames);
        const tables::Recovery found = tables::recoverNamed(made->arguments.path);
        if (!found.sentence.empty()) made->warn(found.sentence);
        made->table = tables::openTable(made->arguments.path, made->arguments.table);
        if (made->table->columns.size() > kColumnMax) {
            tables::refuse(made->table->path, ": ", made->table->columns.size(),
                           " fields, but a virtual table has at most ", kColumnMax);
        }
        made->columns = declaredColumns(*made->table);
        if (made->arguments.table.writable) {
            made->changes.emplace(*made->table, made->columns, made->warn);
        }
        made->utf8 = isUtf8(connection);
        const int declared = sqlite3_declare_vtab(connection, declaration(made->columns).c_str());
        if (declared != SQLITE_OK) {
            setMessage(message, sqlite3_errmsg(connection));
            return declared;
        }
        sqlite3_vtab_config(connection, SQLITE_VTAB_DIRECTONLY);
        *result = made.release();
        return SQLITE_OK;
    });
}

/// Another function than connect, so that the module's own name is no table.
int create(sqlite3* connection, void* warn, int count, const char* const* texts,
           sqlite3_vtab** result, char** message) {
    return connect(connection, warn, count, texts, result, message);
}

int disconnect(sqlite3_vtab* table) {
    delete &tableOf(table);
    return SQLITE_OK;
}

int bestIndex(sqlite3_vtab* table, sqlite3_index_info* info) {
    const VirtualTable& of = tableOf(table);
    return guarded(&table->zErrMsg, [&] {
        return choosePlan({&of.columns, reccount(of.table->base.get()), of.utf8}, info);
    });
}

/// What is odd about a table is told when it is first read.
void tellNotes(VirtualTable& of) {
    for (const std::string& note : std::exchange(of.table->notes, {})) {
        of.warn(of.table->path + ": " + note);
    }
}

int open(sqlite3_vtab* table, sqlite3_vtab_cursor** result) {
    return guarded(&table->zErrMsg, [&] {
        tellNotes(tableOf(table));
        auto cursor = std::make_unique<Cursor>();
        cursor->table = tables::openAgain(*tableOf(table).table);
        cursor->cells.emplace(*cursor->table);
        *result = cursor.release();
        return SQLITE_OK;
    });
}

Cursor& cursorOf(sqlite3_vtab_cursor* cursor) { return *static_cast<Cursor*>(cursor); }

int close(sqlite3_vtab_cursor* cursor) {
    delete &cursorOf(cursor);
    return SQLITE_OK;
}

int filter(sqlite3_vtab_cursor* cursor, int /*number*/, const char* plan, int count,
           sqlite3_value** constants) {
    return guarded(&cursor->pVtab->zErrMsg, [&] {
        beginScan(cursorOf(cursor), plan, {constants, static_cast<std::size_t>(count)});
        return SQLITE_OK;
    });
}

int next(sqlite3_vtab_cursor* cursor) {
    return guarded(&cursor->pVtab->zErrMsg, [&] {
        nextRecord(cursorOf(cursor));
        return SQLITE_OK;
    });
}

int eof(sqlite3_vtab_cursor* cursor) { return cursorOf(cursor).atEnd ? 1 : 0; }

void putResult(sqlite3_context* context, const Stored& stored) {
    const char* const bytes = stored.bytes.data();
    const auto size = static_cast<sqlite3_uint64>(stored.bytes.size());
    switch (stored.storage) {
        case Storage::Integer:
            return sqlite3_result_int64(context, stored.integer);
        case Storage::Real:
            return sqlite3_result_double(context, stored.real);
        case Storage::Text:
            return sqlite3_result_text64(context, bytes, size, SQLITE_TRANSIENT, SQLITE_UTF8);
        case Storage::Blob:
            return sqlite3_result_blob64(context, bytes, size, SQLITE_TRANSIENT);
        case Storage::Null:
            return sqlite3_result_null(context);
    }
}

int column(sqlite3_vtab_cursor* cursor, sqlite3_context* context, int number) {
    return guarded(&cursor->pVtab->zErrMsg, [&] {
        if (sqlite3_vtab_nochange(context) != 0) return SQLITE_OK;
        Cursor& of = cursorOf(cursor);
        const Column& wanted = tableOf(of).columns[static_cast<std::size_t>(number)];
        tables::Value value;
        tables::readCell(*of.cells, wanted, value);
        if (value.fault == tables::Fault::NoMemo || value.fault == tables::Fault::MemoCut) {
            sqlite3_log(SQLITE_WARNING, "%s: record %u, %s: %s", of.table->path.c_str(),
                        of.cells->record + 1, wanted.name.c_str(),
                        tables::faultSentence(value.fault, 1).c_str());
        }
        putResult(context, tables::storedAs(wanted, value));
        return SQLITE_OK;
    });
}

int rowid(sqlite3_vtab_cursor* cursor, sqlite3_int64* result) {
    *result = i64{cursorOf(cursor).cells->record} + 1;
    return SQLITE_OK;
}

/// There is no rollback, so nothing is written inside a transaction.
void refuseTransaction(const VirtualTable& table) {
    if (sqlite3_get_autocommit(table.connection) != 0) return;
    tables::refuse(table.table->path,
                   ": tables cannot be written inside a transaction, since they know no "
                   "ROLLBACK: COMMIT first (in Python, connect with isolation_level=None)");
}

int update(sqlite3_vtab* table, int count, sqlite3_value** values, sqlite3_int64* rowid) {
    return guarded(&table->zErrMsg, [&] {
        VirtualTable& of = tableOf(table);
        if (!of.changes) {
            tables::refuse(of.table->path,
                           ": is open for reading only; USING mira(PATH, writable=1), "
                           "mira_attach(FOLDER, 1) and `mira query --write` open for writing");
        }
        refuseTransaction(of);
        of.changes->take({values, static_cast<std::size_t>(count)}, rowid);
        return SQLITE_OK;
    });
}

int begin(sqlite3_vtab* /*table*/) { return SQLITE_OK; }

int sync(sqlite3_vtab* table) {
    return guarded(&table->zErrMsg, [&] {
        if (tableOf(table).changes) tableOf(table).changes->write();
        return SQLITE_OK;
    });
}

/// Also after a commit: nothing is held any more.
int drop(sqlite3_vtab* table) {
    if (tableOf(table).changes) tableOf(table).changes->drop();
    return SQLITE_OK;
}

int rename(sqlite3_vtab* /*table*/, const char* /*name*/) { return SQLITE_OK; }

constexpr sqlite3_module kModule = [] {
    sqlite3_module module{};
    module.iVersion = 2;
    module.xCreate = create;
    module.xConnect = connect;
    module.xBestIndex = bestIndex;
    module.xDisconnect = disconnect;
    module.xDestroy = disconnect;
    module.xOpen = open;
    module.xClose = close;
    module.xFilter = filter;
    module.xNext = next;
    module.xEof = eof;
    module.xColumn = column;
    module.xRowid = rowid;
    module.xUpdate = update;
    module.xBegin = begin;
    module.xSync = sync;
    module.xCommit = drop;
    module.xRollback = drop;
    module.xRename = rename;
    return module;
}();

}  // namespace

void logWarning(const std::string& sentence) {
    sqlite3_log(SQLITE_WARNING, "%s", sentence.c_str());
}

int registerMira(sqlite3* connection, Warn warn) {
    const int result =
        sqlite3_create_module(connection, "mira", &kModule, reinterpret_cast<void*>(warn));
    return result == SQLITE_OK ? registerAttach(connection) : result;
}

}  // namespace mira::sql
