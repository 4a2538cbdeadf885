// The methods that SQLite calls. Each passes on to the module's own functions and turns what they
// throw into a result and a message.
#include "module.h"

#include <filesystem>
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

std::string declaration(const Columns& columns) {
    std::string text = "CREATE TABLE x(";
    for (std::size_t i = 0; i < columns.size(); ++i) {
        if (i != 0) text += ", ";
        text += tables::quotedName(columns[i].name) + " " +
                tables::storageName(tables::declaredStorage(columns[i]));
        if (i >= columns.recordNumber()) text += " HIDDEN";
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

/// Refuses what a host for reading does not open.
void checkAccess(const VirtualTable& of) {
    if (!of.session->host.readOnly || !of.arguments.table.writable) return;
    tables::refuse(of.arguments.path,
                   ": writable=1 is refused here; `mira query --write` opens for writing");
}

std::string canonicalPath(const std::string& path) {
    std::error_code error;
    const std::filesystem::path real = std::filesystem::canonical(path, error);
    return error ? path : real.string();
}

std::unique_ptr<VirtualTable> makeTable(sqlite3* connection, std::shared_ptr<Session> session,
                                        std::string name, const Arguments& arguments) {
    auto made = std::make_unique<VirtualTable>();
    made->connection = connection;
    made->session = std::move(session);
    const Host& host = made->session->host;
    made->name = std::move(name);
    made->arguments = arguments;
    checkAccess(*made);
    const tables::Recovery found = tables::recoverNamed(arguments.path);
    if (!found.sentence.empty()) host.tell(Notice::Remark, found.sentence);
    made->table = tables::openTable(arguments.path, arguments.table);
    tables::Table& table = *made->table;
    if (table.columns.size() > kColumnMax) {
        tables::refuse(table.path, ": ", table.columns.size(),
                       " fields, but a virtual table has at most ", kColumnMax);
    }
    if (table.page.uncertain) {
        table.notes.push_back(tables::pageDoubt(table.page, host.pageOption));
    }
    made->columns.emplace(table);
    made->file = &made->session->files[canonicalPath(table.path)];
    if (arguments.table.writable) {
        made->changes.emplace(table, *made->columns, connection, *made->session, *made->file,
                              made->name);
    }
    made->utf8 = isUtf8(connection);
    if (host.opened) host.opened(made->name, table);
    return made;
}

int connect(sqlite3* connection, void* session, int count, const char* const* texts,
            sqlite3_vtab** result, char** message) {
    // The first three are the names of module, database and table.
    constexpr int kNames = 3;
    return guarded(message, [&] {
        auto made = makeTable(connection, *static_cast<std::shared_ptr<Session>*>(session),
                              tables::textOf(texts[1], ".", texts[2]),
                              readArguments(count - kNames, texts + kNames));
        const int declared = sqlite3_declare_vtab(connection, declaration(*made->columns).c_str());
        if (declared != SQLITE_OK) {
            setMessage(message, sqlite3_errmsg(connection));
            return declared;
        }
        sqlite3_vtab_config(connection, SQLITE_VTAB_DIRECTONLY);
        sqlite3_vtab_config(connection, SQLITE_VTAB_CONSTRAINT_SUPPORT, 1);  // for OR ROLLBACK
        *result = made.release();
        return SQLITE_OK;
    });
}

/// Another function than connect, so that the module's own name is no table.
int create(sqlite3* connection, void* session, int count, const char* const* texts,
           sqlite3_vtab** result, char** message) {
    return connect(connection, session, count, texts, result, message);
}

int disconnect(sqlite3_vtab* table) {
    delete &tableOf(table);
    return SQLITE_OK;
}

/// Who writes to the table: it, or the one that it was before SQLite connected it anew within the
/// transaction; null outside of one.
Changes* openChanges(const VirtualTable& of) {
    Changes* const open = of.file->open;
    return of.changes && open != nullptr && open->isNamed(of.name) ? open : nullptr;
}

/// SQLite has no message of its own here.
int destroy(sqlite3_vtab* table) {
    const VirtualTable& of = tableOf(table);
    if (openChanges(of) == nullptr) return disconnect(table);
    return guarded(&table->zErrMsg, [&] {
        of.session->host.tell(Notice::Remark, of.name + ": COMMIT or ROLLBACK first");
        return SQLITE_LOCKED;
    });
}

int bestIndex(sqlite3_vtab* table, sqlite3_index_info* info) {
    const VirtualTable& of = tableOf(table);
    return guarded(&table->zErrMsg, [&] {
        const Host& host = of.session->host;
        const bool patterns = !host.outerJoins || keepsOnTerms();
        return choosePlan(
            {*of.columns, reccount(of.table->base.get()), of.utf8, patterns, host.rowLists}, info);
    });
}

/// What is odd about a table is told when it is first read.
void tellNotes(VirtualTable& of) {
    for (const std::string& note : std::exchange(of.table->notes, {})) {
        of.session->host.tell(Notice::Remark, of.table->path + ": " + note);
    }
}

/// Where the connection changes the file, that one as it is by now.
std::unique_ptr<tables::Table> openToRead(const VirtualTable& of) {
    Changes* const open = of.file->open;
    if (open != nullptr) open->show();
    auto table = tables::openAgain(*of.table);
    if (open != nullptr && tables::isReplaced(open->table())) {
        tables::refuse(of.table->path,
                       ": another program has replaced the file since the transaction began");
    }
    return table;
}

int open(sqlite3_vtab* table, sqlite3_vtab_cursor** result) {
    return guarded(&table->zErrMsg, [&] {
        VirtualTable& of = tableOf(table);
        tellNotes(of);
        if (of.changes) of.changes->refuseLost();
        auto cursor = std::make_unique<Cursor>();
        cursor->table = openToRead(of);
        cursor->cells.emplace(*cursor->table);
        cursor->written = of.file->written;
        cursor->undone = of.file->undone;
        ++of.cursors;
        *result = cursor.release();
        return SQLITE_OK;
    });
}

Cursor& cursorOf(sqlite3_vtab_cursor* cursor) { return *static_cast<Cursor*>(cursor); }

/// What could not be kept is told at the end of the statement.
int close(sqlite3_vtab_cursor* cursor) {
    VirtualTable& of = tableOf(cursorOf(cursor));
    delete &cursorOf(cursor);
    if (--of.cursors != 0) return SQLITE_OK;
    return guarded(&of.zErrMsg, [&] {
        of.losses.tell(of.table->path, of.session->host);
        return SQLITE_OK;
    });
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
        const Column& wanted = (*tableOf(of).columns)[static_cast<std::size_t>(number)];
        tables::Value value;
        tables::readCell(*of.cells, wanted, value);
        if (value.fault != tables::Fault::None) addLoss(of, wanted, value.fault);
        const Stored stored = tables::storedAs(wanted, value);
        if (stored.rounded) addLoss(of, wanted, tables::Fault::Rounded);
        putResult(context, stored);
        return SQLITE_OK;
    });
}

int rowid(sqlite3_vtab_cursor* cursor, sqlite3_int64* result) {
    *result = i64{cursorOf(cursor).cells->record} + 1;
    return SQLITE_OK;
}

int update(sqlite3_vtab* table, int count, sqlite3_value** values, sqlite3_int64* rowid) {
    const VirtualTable& of = tableOf(table);
    Changes* const changes = openChanges(of);
    const int result = guarded(&table->zErrMsg, [&] {
        if (!of.changes) {
            tables::refuse(of.table->path,
                           ": is open for reading only; USING mira(PATH, writable=1), "
                           "mira_attach(FOLDER, 1) and `mira query --write` open for writing");
        }
        if (changes == nullptr) {  // SQLite would not say when a savepoint takes the table back
            tables::refuse(of.table->path, ": ", of.name,
                           " has been created within this transaction; COMMIT before writing");
        }
        changes->take({values, static_cast<std::size_t>(count)}, rowid);
        return SQLITE_OK;
    });
    // A row that does not fit. OR FAIL and OR IGNORE act as OR ABORT.
    const bool all = sqlite3_vtab_on_conflict(of.connection) == SQLITE_ROLLBACK;
    return result == SQLITE_ERROR && changes != nullptr && all ? SQLITE_CONSTRAINT : result;
}

/// Comes before the cursors of a statement that writes.
int begin(sqlite3_vtab* table) {
    return guarded(&table->zErrMsg, [&] {
        if (tableOf(table).changes) tableOf(table).changes->begin();
        return SQLITE_OK;
    });
}

/// For a table that changes its file. One that was connected anew leaves it to the one before,
/// which SQLite tells the same.
template <typename Work>
int whereOpen(sqlite3_vtab* table, Work work) {
    std::optional<Changes>& changes = tableOf(table).changes;
    if (!changes || !changes->isOpen()) return SQLITE_OK;
    return guarded(&table->zErrMsg, [&] {
        work(*changes);
        return SQLITE_OK;
    });
}

int sync(sqlite3_vtab* table) {
    return whereOpen(table, [](Changes& changes) { changes.sync(); });
}
int commit(sqlite3_vtab* table) {
    return whereOpen(table, [](Changes& changes) { changes.commit(); });
}
int rollback(sqlite3_vtab* table) {
    return whereOpen(table, [](Changes& changes) { changes.rollback(); });
}
int savepoint(sqlite3_vtab* table, int number) {
    return whereOpen(table, [=](Changes& changes) { changes.mark(number); });
}
int release(sqlite3_vtab* table, int number) {
    return whereOpen(table, [=](Changes& changes) { changes.release(number); });
}
int rollbackTo(sqlite3_vtab* table, int number) {
    return whereOpen(table, [=](Changes& changes) { changes.undoTo(number); });
}

int rename(sqlite3_vtab* table, const char* name) {
    return guarded(&table->zErrMsg, [&] {
        VirtualTable& of = tableOf(table);
        Changes* const open = openChanges(of);
        of.name = of.name.substr(0, of.name.find('.') + 1) + name;
        if (of.changes) of.changes->rename(of.name);
        if (open != nullptr) open->rename(of.name);
        return SQLITE_OK;
    });
}

constexpr sqlite3_module kModule = [] {
    sqlite3_module module{};
    module.iVersion = 2;
    module.xCreate = create;
    module.xConnect = connect;
    module.xBestIndex = bestIndex;
    module.xDisconnect = disconnect;
    module.xDestroy = destroy;
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
    module.xCommit = commit;
    module.xRollback = rollback;
    module.xRename = rename;
    module.xSavepoint = savepoint;
    module.xRelease = release;
    module.xRollbackTo = rollbackTo;
    return module;
}();

}  // namespace

void logNotice(Notice /*notice*/, const std::string& sentence) {
    sqlite3_log(SQLITE_WARNING, "%s", asUtf8(sentence).c_str());
}

int registerMira(sqlite3* connection, const Host& host) {
    std::shared_ptr<Session>* kept = nullptr;
    try {
        kept = new std::shared_ptr<Session>(std::make_shared<Session>(Session{host}));
    } catch (const std::bad_alloc&) {
        return SQLITE_NOMEM;
    }
    const int result = sqlite3_create_module_v2(connection, "mira", &kModule, kept, [](void* own) {
        delete static_cast<std::shared_ptr<Session>*>(own);
    });
    return result == SQLITE_OK ? registerAttach(connection, host.readOnly) : result;
}

}  // namespace mira::sql
