#include "rows/database.h"

#include "tables/page/refusal.h"
#include "terminal/status.h"

namespace mira::tool {
void watchStops(sqlite3* connection) {
    constexpr int kSteps = 10000;
    sqlite3_progress_handler(
        connection, kSteps, [](void*) { return stopped() ? 1 : 0; }, nullptr);
}

std::string createTable(std::string_view name, const std::vector<Column>& columns) {
    std::string sql = "CREATE TABLE " + quotedName(name) + " (";
    for (const Column& column : columns) {
        sql += &column == columns.data() ? "\n  " : ",\n  ";
        sql += quotedName(column.name);
        if (column.kind == Kind::Calculated && column.field == kNoField) continue;
        sql += ' ';
        sql += storageName(declaredStorage(column));
    }
    return sql + "\n)";
}

int bindValue(sqlite3_stmt* statement, int place, const Stored& stored, bool lasts) {
    const sqlite3_destructor_type copy = lasts ? SQLITE_STATIC : SQLITE_TRANSIENT;
    const char* const bytes = stored.bytes.data();
    const auto size = static_cast<sqlite3_uint64>(stored.bytes.size());
    switch (stored.storage) {
        case Storage::Integer:
            return sqlite3_bind_int64(statement, place, stored.integer);
        case Storage::Real:
            return sqlite3_bind_double(statement, place, stored.real);
        case Storage::Text:
            return sqlite3_bind_text64(statement, place, bytes, size, copy, SQLITE_UTF8);
        case Storage::Blob:
            return sqlite3_bind_blob64(statement, place, bytes, size, copy);
        case Storage::Null:
            break;
    }
    return sqlite3_bind_null(statement, place);
}

Database::Database(const Target& target, bool force, Present present)
    : target_(target), force_(force), present_(present) {
    if (target.path.empty() || !target.regular) {
        refuse(target.name, ": a database cannot be written into a pipe or device");
    }
    const bool isNew = !target.exists || force;
    if (isNew) file_ = std::make_unique<TemporaryFile>(target);
    sqlite3* database = nullptr;
    const std::string& path = isNew ? file_->path() : target.path;
    const int result =
        sqlite3_open_v2(path.c_str(), &database,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    database_.reset(database);
    if (result != SQLITE_OK) fail();
    watchStops(database);
    // Nobody knows the new file yet, so nothing needs to be taken back in it.
    if (isNew) {
        run("PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; PRAGMA locking_mode=EXCLUSIVE");
    }
    run("BEGIN IMMEDIATE");
}

Database::~Database() {
    insert_.reset();
    if (database_ && sqlite3_get_autocommit(database_.get()) == 0) {
        sqlite3_progress_handler(database_.get(), 0, nullptr, nullptr);
        sqlite3_exec(database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

void Database::fail() {
    leaveIfStopped();
    refuse(target_.name, ": ",
           database_ ? sqlite3_errmsg(database_.get()) : "no memory to open it");
}

void Database::run(const std::string& sql) {
    check(sqlite3_exec(database_.get(), sql.c_str(), nullptr, nullptr, nullptr));
}

bool Database::hasTable(const std::string& name) {
    return sqlite3_table_column_metadata(database_.get(), "main", name.c_str(), nullptr, nullptr,
                                         nullptr, nullptr, nullptr, nullptr) == SQLITE_OK;
}

std::string Database::freeName(const std::string& wanted) {
    return tool::freeName(
        wanted, [&](const std::string& name) { return names_.insert(foldCase(name)).second; });
}

void Database::addColumns(const std::string& name, const Table* table,
                          const std::vector<Column>& columns) {
    insert_.reset();
    table_ = table;
    columns_ = &columns;
    bool present = hasTable(name);
    if (present && present_ == Present::Refuse) {
        refuse(target_.name, ": has a table ", name,
               "; --replace replaces it, --append adds to it");
    }
    if (present && present_ == Present::Replace) {
        run("DROP TABLE " + quotedName(name));
        present = false;
    }
    if (!present) run(createTable(name, columns));
    std::vector<std::string> names;
    names.reserve(columns.size());
    for (const Column& column : columns) names.push_back(quotedName(column.name));
    const std::vector<std::string> places(columns.size(), "?");
    const std::string sql = textOf("INSERT INTO ", quotedName(name), " (", joined(names),
                                   ") VALUES (", joined(places), ')');
    sqlite3_stmt* statement = nullptr;
    check(sqlite3_prepare_v3(database_.get(), sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT,
                             &statement, nullptr));
    insert_.reset(statement);
}

void Database::endRow() {
    if (sqlite3_step(insert_.get()) != SQLITE_DONE) fail();
    check(sqlite3_reset(insert_.get()));
}

void Database::finish() {
    insert_.reset();
    run("COMMIT");
    if (sqlite3_close(database_.get()) != SQLITE_OK) fail();
    static_cast<void>(database_.release());
    if (file_) file_->keep(force_);
}

}  // namespace mira::tool
