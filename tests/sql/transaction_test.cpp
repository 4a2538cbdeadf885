// Transactions: random scripts leave in tables what they leave in ordinary ones, and what others
// see of them meanwhile. A part of the scripts takes a second; MIRA_FAULT_ALL=1 runs them all.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <filesystem>
#include <random>

#include "support.h"
#include "tables/change/recovery.h"

namespace {

using namespace test;
using Rows = std::vector<std::string>;

const Rows kNone = {};
const bool all = std::getenv("MIRA_FAULT_ALL") != nullptr;

bool hasFailed(const Connection& connection) {
    const int code = sqlite3_errcode(connection.get());
    return code != SQLITE_OK && code != SQLITE_ROW && code != SQLITE_DONE;
}

// --------------------------------------------------------------------------------------------
// Random scripts
// --------------------------------------------------------------------------------------------

/// Statements over tables a, b and c of notes, and an ordinary table log. A name of more than 8
/// characters and a number above 99999 do not fit.
class Script {
public:
    explicit Script(unsigned seed) : random_(seed) {}

    std::size_t below(std::size_t count) { return random_() % count; }

    std::string next() {
        const std::string t = table();
        switch (below(16)) {
            case 0:
                return below(3) != 0 ? "BEGIN" : "BEGIN IMMEDIATE";
            case 1:
                return "COMMIT";
            case 2:
                return below(3) == 0 ? "ROLLBACK" : "SAVEPOINT " + point();
            case 3:
                return "SAVEPOINT " + point();
            case 4:
                return "RELEASE " + point();
            case 5:
            case 6:
                return "ROLLBACK TO " + point();
            case 7:
                return "INSERT" + orRollback() + " INTO " + t + "(NAME, QTY, NOTE) VALUES " + row();
            case 8:
                return "INSERT" + orRollback() + " INTO " + t + "(NAME, QTY, NOTE) VALUES " +
                       row() + ", " + row() + ", " + row();
            case 9:
                return "INSERT INTO " + t + "(NAME, QTY, NOTE) SELECT substr(y.NOTE, 1, 8), " +
                       "x.QTY, y.NAME FROM " + table() + " x JOIN " + table() +
                       " y ON x.ID = y.ID WHERE y.NOTE IS NOT NULL ORDER BY x.ID LIMIT 3";
            case 10:
                return "UPDATE " + t + " SET " + set(t) + " FROM (SELECT ID AS NR, QTY + 1 AS N " +
                       "FROM " + table() + ") x WHERE NR = ID AND " + condition(t);
            case 11:
                return "DELETE FROM " + t + " WHERE " + condition(t);
            case 12:
                return "INSERT INTO log SELECT QTY % 50 FROM " + t + " WHERE " + condition(t);
            case 13:
                if (below(2) == 0) return "CREATE TABLE other" + number(99) + "(x)";
                return below(2) == 0
                           ? "DROP TABLE c"
                           : "CREATE VIRTUAL TABLE temp.c USING mira('c.dbf', writable=1)";
            default:
                return "UPDATE" + orRollback() + " " + t + " SET " +
                       (below(3) == 0 ? set(t) : "QTY = QTY + 1") + " WHERE " + condition(t);
        }
    }
    std::string question() {
        return "SELECT x.ID, x.NAME, x.QTY, x.NOTE, y.NAME, y.NOTE FROM " + table() +
               " x LEFT JOIN " + table() + " y ON x." + (below(2) == 0 ? "ID" : "QTY") +
               " = y.ID ORDER BY 1, 2, 3, 4, 5, 6";
    }

private:
    std::string number(std::size_t most) { return std::to_string(below(most)); }
    std::string table() { return std::string(1, "aabbc"[below(5)]); }
    std::string point() { return std::string(1, "stu"[below(3)]); }
    std::string orRollback() { return below(12) == 0 ? " OR ROLLBACK" : ""; }
    std::string row() {
        const bool fits = below(8) != 0;
        return "('" + std::string(fits ? "n" : "too long ") + number(30) + "', " + number(300) +
               (below(6) == 0 ? ", NULL)"
                              : ", 'memo " + std::string(below(5) * 40, 'm') + number(99) + "')");
    }
    std::string set(const std::string& t) {
        switch (below(4)) {
            case 0:
                return "QTY = " + t + ".QTY * 600";  // which fits some
            case 1:
                return "NOTE = 'new " + number(99) + "' || " + t + ".QTY";
            case 2:
                return "NAME = 'u' || " + t + ".QTY, NOTE = NULL";
            default:
                return "QTY = 7";
        }
    }
    std::string condition(const std::string& t) {
        switch (below(4)) {
            case 0:
                return t + "._record = " + number(12);
            case 1:
                return t + ".QTY < " + number(300);
            case 2:
                return t + ".NOTE LIKE '%" + number(9) + "%'";
            default:
                return t + ".ID IN (SELECT QTY % 9 FROM " + table() + ")";
        }
    }

    std::mt19937 random_;
};

/// Of a statement over a table, what stands for it over an ordinary one.
std::string ordinary(const std::string& statement) {
    if (statement == "DROP TABLE c") return "ALTER TABLE c RENAME TO away";
    if (statement.starts_with("CREATE VIRTUAL")) return "ALTER TABLE away RENAME TO c";
    return statement;
}

struct Pair {
    Folder folder{};
    Connection tables = connect(), plain = connect();

    Pair() {
        for (const std::string name : {"a", "b", "c"}) {
            writeNotes(folder.file(name + ".dbf"));
            attach(tables, name, folder.file(name + ".dbf"), ", writable=1");
            answer(plain, "CREATE TABLE " + name +
                              "(ID INTEGER PRIMARY KEY AUTOINCREMENT, NAME TEXT "
                              "CHECK(length(NAME) <= 8), QTY INTEGER CHECK(QTY <= 99999), "
                              "NOTE TEXT, _record INTEGER AS (ID))");
        }
        for (const Connection* each : {&tables, &plain})
            answer(*each, "CREATE TEMP TABLE log(x UNIQUE)");
    }

    /// Both do the statement. Two things only ordinary tables can do in a transaction.
    void run(std::string statement) {
        const std::string path = "'" + folder.file("c.dbf") + "'";
        const std::string other = ordinary(statement);
        if (const std::size_t at = statement.find("'c.dbf'"); at != std::string::npos)
            statement.replace(at, 7, path);
        const bool open = sqlite3_get_autocommit(tables.get()) == 0;
        const Rows said = answer(tables, statement);
        const bool failed = hasFailed(tables);
        const int code = sqlite3_errcode(tables.get());
        const bool created = said.size() == 1 &&
                             said[0].find("created within this transaction") != std::string::npos;
        if (open && failed && (code == SQLITE_LOCKED || created)) return;
        answer(plain, other);
        ASSERT_EQ(failed, hasFailed(plain)) << statement << testing::PrintToString(said);
        ASSERT_EQ(sqlite3_get_autocommit(tables.get()), sqlite3_get_autocommit(plain.get()));
    }

    void expectSame(const std::string& question) const {
        const Rows found = answer(tables, question, true);
        if (hasFailed(tables)) {
            answer(plain, question);
            ASSERT_TRUE(hasFailed(plain)) << question << testing::PrintToString(found);
        } else {
            ASSERT_EQ(found, answer(plain, question, true)) << question;
        }
    }

    void expectSameTables() const {
        for (const std::string name : {"a", "b", "c"})
            expectSame("SELECT ID, NAME, QTY, NOTE, _record FROM " + name + " ORDER BY ID");
    }

    /// What another connection finds, too.
    void expectSameFiles() {
        answer(plain, "ALTER TABLE away RENAME TO c");
        tables = connect();
        for (const std::string name : {"a", "b", "c"}) {
            ASSERT_FALSE(std::filesystem::exists(folder.file(name + ".dbf-mira")));
            ASSERT_EQ(attach(tables, name, folder.file(name + ".dbf")), kNone);
        }
        expectSameTables();
    }
};

TEST(SqlTransactions, RandomScriptsLeaveWhatOrdinaryTablesHold) {
    for (unsigned seed = 0; seed < (all ? 3000 : 120); ++seed) {
        Pair pair;
        Script script(seed);
        std::string told;
        for (int i = 0; i < 30; ++i) {
            const std::string statement = script.next();
            told += statement + ";\n";
            pair.run(statement);
            if (script.below(3) == 0) pair.expectSame(script.question());
            if (script.below(5) == 0) pair.expectSameTables();
            ASSERT_FALSE(testing::Test::HasFailure()) << seed << "\n" << told;
        }
        if (sqlite3_get_autocommit(pair.tables.get()) == 0) {
            pair.run(script.below(3) == 0 ? "ROLLBACK" : "COMMIT");
        }
        pair.expectSameFiles();
        ASSERT_FALSE(testing::Test::HasFailure()) << seed << "\n" << told;
    }
}

// --------------------------------------------------------------------------------------------
// Others
// --------------------------------------------------------------------------------------------

struct Shared : testing::Test {
    Folder folder;
    std::string path = folder.file("a.dbf");
    Connection connection = connect();

    Shared() {
        for (const std::string name : {"a", "b"}) {
            writeNotes(folder.file(name + ".dbf"));
            attach(connection, name, folder.file(name + ".dbf"), ", writable=1");
            answer(connection, "INSERT INTO " + name + "(NAME, QTY) VALUES ('x', 1), ('y', 2)");
        }
    }

    void expectError(const Connection& of, const std::string& statement, int code,
                     const std::string& text) const {
        const Rows said = answer(of, statement);
        EXPECT_EQ(sqlite3_errcode(of.get()), code) << statement;
        ASSERT_EQ(said.size(), 1U) << statement;
        EXPECT_NE(said[0].find(text), std::string::npos) << said[0];
    }
    int mira(const std::string& words) const {
        const std::string command =
            "cd " + folder.file("") + " && " + MIRA_PROGRAM + " " + words + " > said 2>&1";
        const int status = std::system(command.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string said() const { return readAll(folder.file("said")); }
};
using SqlShared = Shared;

TEST_F(SqlShared, OneWritesAtATime) {
    const std::string busy = "a.dbf: is being changed by another program";
    const Connection other = connect();
    attach(other, "a", path, ", writable=1");
    answer(connection, "BEGIN");
    EXPECT_EQ(answer(connection, "UPDATE a SET QTY = 5"), kNone);
    expectError(other, "UPDATE a SET QTY = 6", SQLITE_BUSY, busy);
    EXPECT_EQ(mira("set a QTY=7 --all"), 2);
    EXPECT_NE(said().find(busy), std::string::npos) << said();
    EXPECT_EQ(mira("query --write 'DELETE FROM a' a.dbf"), 2);
    EXPECT_EQ(mira("export a -f QTY"), 0);
    EXPECT_EQ(said(), "QTY\n1\n2\n");  // nothing of this has been needed in the file
    EXPECT_EQ(answer(connection, "SELECT QTY FROM a"), (Rows{"5", "5"}));
    EXPECT_EQ(answer(connection, "COMMIT"), kNone);
    EXPECT_EQ(answer(other, "UPDATE a SET QTY = QTY + 1"), kNone);
    EXPECT_EQ(mira("set a QTY=9 -w QTY=6"), 0) << said();
    EXPECT_EQ(answer(connection, "SELECT QTY FROM a"), (Rows{"9", "9"}));
    // And the other way round.
    const auto opened = mira::tables::openForChange(path, {});
    expectError(connection, "UPDATE a SET QTY = 6", SQLITE_BUSY, busy);
}

TEST_F(SqlShared, TwoNamesOfOneFile) {
    attach(connection, "twin", path, ", writable=1");
    answer(connection, "BEGIN");
    answer(connection, "INSERT INTO a(NAME) VALUES ('z')");
    EXPECT_EQ(answer(connection, "SELECT NAME FROM twin"), (Rows{"x", "y", "z"}));
    expectError(connection, "UPDATE twin SET QTY = 6", SQLITE_LOCKED,
                "is being changed as temp.a; COMMIT or ROLLBACK first");
    expectError(connection, "DROP TABLE a", SQLITE_LOCKED, "locked");
    EXPECT_EQ(answer(connection, "DROP TABLE twin"), kNone);
    attach(connection, "late", folder.file("b.dbf"), ", writable=1");
    expectError(connection, "UPDATE late SET QTY = 6", SQLITE_ERROR,
                "temp.late has been created within this transaction");
    // SQLite connects a table anew after these.
    answer(connection, "SAVEPOINT s");
    answer(connection, "INSERT INTO a(NAME) VALUES ('gone')");
    answer(connection, "ALTER TABLE a RENAME TO other");
    EXPECT_EQ(answer(connection, "UPDATE other SET QTY = 8"), kNone);
    answer(connection, "ROLLBACK TO s");
    EXPECT_EQ(answer(connection, "INSERT INTO a(NAME) VALUES ('last')"), kNone);
    answer(connection, "COMMIT");
    EXPECT_EQ(answer(connection, "SELECT ID, NAME, QTY FROM a"),
              (Rows{"1|x|1", "2|y|2", "3|z|", "4|last|"}));
    EXPECT_EQ(answer(connection, "UPDATE late SET QTY = 6"), kNone);
}

TEST_F(SqlShared, ScansEndWhereARollbackHasCut) {
    answer(connection, "BEGIN");
    answer(connection, "INSERT INTO a(NAME) SELECT 'n' || b.ID FROM a, b");
    sqlite3_stmt* scan = nullptr;
    sqlite3_prepare_v2(connection.get(), "SELECT NAME FROM a", -1, &scan, nullptr);
    EXPECT_EQ(sqlite3_step(scan), SQLITE_ROW);
    EXPECT_EQ(answer(connection, "ROLLBACK"), kNone);
    EXPECT_EQ(sqlite3_step(scan), SQLITE_ROW);
    EXPECT_EQ(sqlite3_step(scan), SQLITE_DONE);
    sqlite3_finalize(scan);
}

TEST_F(SqlShared, FailingKindsOfStatements) {
    answer(connection, "BEGIN");
    answer(connection, "UPDATE a SET QTY = 3");
    for (const char* kind : {"ABORT", "FAIL", "IGNORE", "REPLACE"}) {
        expectError(connection,
                    "INSERT OR " + std::string(kind) + " INTO a(QTY) VALUES (1), (123456)",
                    SQLITE_ERROR, "new record, QTY: ");
        EXPECT_EQ(answer(connection, "SELECT QTY FROM a"), (Rows{"3", "3"})) << kind;
    }
    expectError(connection, "INSERT OR ROLLBACK INTO a(QTY) VALUES (1), (123456)",
                SQLITE_CONSTRAINT, "new record, QTY: ");
    EXPECT_EQ(sqlite3_get_autocommit(connection.get()), 1);
    EXPECT_EQ(answer(connection, "SELECT QTY FROM a"), (Rows{"1", "2"}));
}

/// A database that is busy refuses COMMIT when the tables have been synchronised; it can be said
/// again.
TEST_F(SqlShared, CommitsAgainAfterABusyDatabase) {
    const std::string database = folder.file("main.db");
    const Connection own = connect(database), holder = connect(database);
    attach(own, "a", path, ", writable=1");
    answer(own, "CREATE TABLE t(x)");
    answer(own, "BEGIN");
    answer(own, "INSERT INTO t VALUES (1)");
    answer(own, "UPDATE a SET QTY = 3");
    sqlite3_stmt* held = nullptr;
    sqlite3_prepare_v2(holder.get(), "SELECT 1 FROM sqlite_schema", -1, &held, nullptr);
    sqlite3_step(held);
    expectError(own, "COMMIT", SQLITE_BUSY, "locked");
    EXPECT_EQ(answer(own, "UPDATE a SET QTY = QTY + 1 WHERE ID = 2"), kNone);
    sqlite3_finalize(held);
    EXPECT_EQ(answer(own, "COMMIT"), kNone);
    EXPECT_EQ(answer(connection, "SELECT QTY FROM a"), (Rows{"3", "4"}));
}

TEST_F(SqlShared, AFullDiskTakesBackTheTransaction) {
    answer(connection, "BEGIN");
    answer(connection, "UPDATE a SET QTY = 3");
    answer(connection, "UPDATE b SET QTY = 4");
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit full{20000, old.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
    answer(connection, "INSERT INTO a(NOTE) VALUES (zeroblob(30000))");
    expectError(connection, "SELECT * FROM a", SQLITE_IOERR, "cannot be written");
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_EQ(sqlite3_get_autocommit(connection.get()), 1);
    for (const char* name : {"a", "b"})
        EXPECT_EQ(answer(connection, "SELECT QTY FROM " + std::string(name)), (Rows{"1", "2"}));
}

TEST_F(SqlShared, MiraQueryEndsWhatItBegins) {
    EXPECT_EQ(mira("query --write 'BEGIN; UPDATE a SET QTY = 5' a.dbf"), 2);
    EXPECT_NE(said().find("no COMMIT"), std::string::npos) << said();
    EXPECT_EQ(mira("query --write --backups 2 'SAVEPOINT s; UPDATE a SET QTY = 6; RELEASE s' ."), 0)
        << said();
    // A reader that goes away in the middle of a transaction.
    EXPECT_EQ(mira("query -q --write --no-backup 'BEGIN; UPDATE a SET QTY = 7; SELECT QTY, "
                   "zeroblob(99999) FROM a; COMMIT' . -F csv | true"),
              0);
    EXPECT_FALSE(std::filesystem::exists(path + "-mira"));
    EXPECT_EQ(answer(connection, "SELECT QTY FROM a"), (Rows{"6", "6"}));
}

/// Rows are not held, whatever their number.
TEST(SqlTransactions, TakeLittleMemory) {
#ifdef MIRA_SANITIZED
    GTEST_SKIP() << "a sanitizer keeps memory that has been freed";
#endif
    const int count = all ? 3000000 : 300000;
    Folder folder;
    Layout layout{0x03, {{"NAME", 'C', 8}, {"QTY", 'N', 8}}};
    std::string bytes = layout.bytes();
    bytes.replace(4, 4, le(static_cast<u64>(count), 4));
    bytes.insert(bytes.size() - 1, repeat(" name           1", count));
    writeAll(folder.file("large.dbf"), bytes);
    bytes = {};
    const pid_t child = fork();
    if (child == 0) {
        rusage usage{};
        const Connection own = connect();
        attach(own, "large", folder.file("large.dbf"), ", writable=1");
        getrusage(RUSAGE_SELF, &usage);
        const long before = usage.ru_maxrss;
        const Rows said = answer(own, "UPDATE large SET QTY = QTY + 1, NAME = 'x'");
        getrusage(RUSAGE_SELF, &usage);
        _exit(!said.empty() ? 255 : static_cast<int>((usage.ru_maxrss - before) / 1024));
    }
    int status = 0;
    waitpid(child, &status, 0);
    RecordProperty("MiB", WEXITSTATUS(status));
    EXPECT_LT(WEXITSTATUS(status), 64);
}

}  // namespace
