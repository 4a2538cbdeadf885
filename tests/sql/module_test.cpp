// What the virtual tables refuse, keep and survive. What they answer is compared with ordinary
// tables in random_queries_test.cpp and shown in docs/sql.md, whose examples run as tests.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <thread>

#include "support.h"

namespace {

using namespace test;
using Rows = std::vector<std::string>;

const Rows kNone = {};

std::string warnings;  // in SQLite's log, a line each
const int kLogging = sqlite3_config(
    SQLITE_CONFIG_LOG,
    +[](void*, int code, const char* text) {
        if (code == SQLITE_WARNING) warnings += std::string(text) + "\n";
    },
    nullptr);

Layout goods(std::size_t records = 3) {
    Layout layout{0x03, {{"CODE", 'C', 4}, {"PRICE", 'N', 6, 2}, {"QTY", 'N', 3}}};
    for (std::size_t i = 0; i < records; ++i) {
        layout.records.push_back(" A" + padded(std::to_string(i), 3, ' ') + "  1.50 07");
    }
    return layout;
}

struct Goods : testing::Test {
    Folder folder;
    std::string path = folder.file("goods.dbf");
    Connection connection = connect();

    Goods() {
        writeAll(path, goods().bytes());
        attach(connection, "goods", path, ", writable=1");
    }
};
using SqlModule = Goods;
using SqlWriting = Goods;

TEST_F(SqlModule, NamesWhatItCannotOpen) {
    EXPECT_EQ(attach(connection, "x", folder.file("nope.dbf")),
              Rows{folder.file("nope.dbf") + ": no such table"});
    EXPECT_EQ(attach(connection, "x", path, ", colour=red"),
              Rows{path + ": there is no option \"colour\"; those there are: code_page, deleted, "
                          "writable, long_names, as_text"});
    EXPECT_EQ(attach(connection, "x", path, ", deleted=maybe"),
              Rows{path + ": deleted is skip, include or only, not \"maybe\""});
    Layout wide{0x03, {}};
    for (int i = 0; i < 1999; ++i) wide.columns.push_back({"F" + std::to_string(i), 'L', 1});
    writeAll(folder.file("wide.dbf"), wide.bytes());
    EXPECT_EQ(
        attach(connection, "x", folder.file("wide.dbf")),
        Rows{folder.file("wide.dbf") + ": 1999 fields, but a virtual table has at most 1998"});
}

TEST_F(SqlModule, AttachesAFolderWhateverTheNames) {
    writeAll(folder.file("o'brien \"2\".dbf"), goods(1).bytes());
    writeAll(folder.file("\xD0\xA1\xD0\xBA\xD0\xBB\xD0\xB0\xD0\xB4.DBF"), goods(2).bytes());
    writeAll(folder.file("torn.dbf"), "torn");
    const Rows report = answer(connection, "SELECT mira_attach('" + folder.file("") + "')");
    EXPECT_EQ(report[0].substr(0, 9), "3 tables\n");
    EXPECT_NE(report[0].find("torn.dbf: "), std::string::npos);
    EXPECT_EQ(answer(connection, "SELECT count(*) FROM \"o'brien \"\"2\"\"\""), Rows{"1"});
    EXPECT_EQ(
        answer(connection, "SELECT count(*) FROM \"\xD0\xA1\xD0\xBA\xD0\xBB\xD0\xB0\xD0\xB4\""),
        Rows{"2"});
    EXPECT_EQ(answer(connection, "SELECT count(*) FROM goods_2"), Rows{"3"});
}

TEST_F(SqlModule, StaysOutOfReachOfForeignViews) {
    answer(connection, "CREATE VIRTUAL TABLE main.inner USING mira('" + path + "')");
    answer(connection, "CREATE VIEW foreign_view AS SELECT * FROM inner");
    answer(connection, "CREATE TEMP VIEW own_view AS SELECT * FROM inner");
    EXPECT_EQ(answer(connection, "SELECT count(*) FROM foreign_view"),
              Rows{"unsafe use of virtual table \"inner\""});
    EXPECT_EQ(answer(connection, "SELECT count(*) FROM own_view"), Rows{"3"});
}

TEST_F(SqlModule, ReadsOnWhenTheTableIsRemovedAndSeesWhatOthersChange) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(connection.get(), "SELECT CODE FROM goods", -1, &statement, nullptr);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    writeAll(path, goods(5).bytes());  // another file under the name
    EXPECT_EQ(answer(connection, "SELECT count(*) FROM goods"), Rows{"5"});
    std::filesystem::remove(path);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE);
    sqlite3_finalize(statement);
    EXPECT_NE(answer(connection, "SELECT count(*) FROM goods")[0].find(path + ": "),
              std::string::npos);
}

TEST_F(SqlModule, ServesManyConnectionsAndTwoRegistrations) {
    EXPECT_EQ(mira::sql::registerMira(connection.get()), SQLITE_OK);
    EXPECT_EQ(answer(connection, "SELECT count(*) FROM goods a, goods b WHERE a.CODE = b.CODE"),
              Rows{"3"});
    std::vector<std::thread> threads;
    std::vector<Rows> answers(32);
    for (Rows& rows : answers) {
        threads.emplace_back([&rows, this] {
            const Connection own = connect();
            attach(own, "goods", path);
            rows = answer(own, "SELECT sum(QTY) FROM goods WHERE PRICE > 1");
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (const Rows& rows : answers) EXPECT_EQ(rows, Rows{"21"});
}

TEST_F(SqlWriting, ChangesOnlyWhatIsSet) {
    const std::string before = readAll(path);
    EXPECT_EQ(answer(connection, "UPDATE goods SET PRICE = 2.25 WHERE CODE = 'A1'"), kNone);
    EXPECT_EQ(answer(connection, "SELECT changes()"), Rows{"1"});
    std::string expected = before;
    expected.replace(expected.find("A1  ") + 4, 6, "  2.25");
    // "07" in QTY is no canonical number and stays; the date of the last update changes.
    EXPECT_EQ(readAll(path).substr(4), expected.substr(4));
    EXPECT_EQ(readAll(folder.file("goods.bak")), before);
}

TEST_F(SqlWriting, AppendsMarksAndRecalls) {
    EXPECT_EQ(answer(connection, "INSERT INTO goods(CODE, QTY) VALUES ('B', 5), ('C', NULL)"),
              kNone);
    EXPECT_EQ(answer(connection, "SELECT last_insert_rowid()"), Rows{"5"});
    EXPECT_EQ(answer(connection, "DELETE FROM goods WHERE QTY = 7"), kNone);
    EXPECT_EQ(answer(connection, "SELECT _record, CODE, PRICE, QTY FROM goods"),
              (Rows{"4|B||5", "5|C||"}));
    attach(connection, "marked", path, ", deleted=only, writable=1");
    EXPECT_EQ(answer(connection, "UPDATE marked SET _deleted = 0 WHERE _record = 2"), kNone);
    EXPECT_EQ(answer(connection, "SELECT count(*) FROM goods"), Rows{"3"});
}

TEST_F(SqlWriting, WritesNothingWhenAnythingDoesNotFit) {
    const std::string before = readAll(path);
    struct Case {
        const char* statement;
        const char* message;
    };
    const Case cases[] = {
        {"INSERT INTO goods(CODE) VALUES ('B'), ('TOO LONG')", "new record, CODE: "},
        {"UPDATE goods SET QTY = _record * 400", "record 3, QTY: "},
        {"UPDATE goods SET PRICE = 'cheap'", "record 1, PRICE: \"cheap\" is no number"},
        {"UPDATE goods SET _record = 9", "record 1, _record: a record's number"},
        {"INSERT INTO goods(rowid, CODE) VALUES (9, 'B')", "new record, rowid: a record's number"},
        {"UPDATE goods SET _deleted = 7", "record 1, _deleted: is 1 or 0"},
    };
    for (const Case& c : cases) {
        const Rows rows = answer(connection, c.statement);
        ASSERT_EQ(rows.size(), 1U) << c.statement;
        EXPECT_NE(rows[0].find(path + ": " + c.message), std::string::npos) << rows[0];
        EXPECT_EQ(readAll(path), before) << c.statement;
    }
    EXPECT_FALSE(std::filesystem::exists(folder.file("goods.bak")));
}

TEST_F(SqlWriting, RefusesTransactionsAndTablesForReading) {
    const std::string before = readAll(path);
    answer(connection, "BEGIN");
    EXPECT_NE(answer(connection, "UPDATE goods SET QTY = 1")[0].find("isolation_level=None"),
              std::string::npos);
    answer(connection, "ROLLBACK");
    attach(connection, "reading", path);
    EXPECT_NE(answer(connection, "DELETE FROM reading")[0].find("is open for reading only"),
              std::string::npos);
    EXPECT_EQ(readAll(path), before);
}

TEST_F(SqlWriting, WritesNothingOnAFullDisk) {
    const std::string before = readAll(path);
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit full{before.size() + 20, old.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
    const Rows rows = answer(connection, "INSERT INTO goods(CODE) VALUES ('B'), ('C'), ('D')");
    setrlimit(RLIMIT_FSIZE, &old);
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_NE(rows[0].find("cannot be written"), std::string::npos) << rows[0];
    EXPECT_EQ(answer(connection, "SELECT count(*) FROM goods"), Rows{"3"});
}

TEST_F(SqlWriting, LogsOnceForAStatementThatItsCodePageIsADefault) {
    ASSERT_EQ(kLogging, SQLITE_OK);
    warnings.clear();
    answer(connection, "INSERT INTO goods(CODE) VALUES ('\xC3\xA9'), ('\xC3\xA8')");
    answer(connection, "UPDATE goods SET QTY = 1");
    EXPECT_EQ(warnings,
              path + ": code page CP437 is only a default; code_page=NAME says which it is\n");
}

TEST_F(SqlWriting, KeepsLargeMemos) {
    mira::DbfField fields[2] = {};
    mira::CreateField(&fields[0], "ID", 'I', 4);
    mira::CreateField(&fields[1], "PICTURE", 'G', 4);
    const std::string file = folder.file("pictures.dbf");
    ASSERT_EQ(mira::CreateDatabase(file.c_str(), fields, 2, 3, 64, 1), 1);
    attach(connection, "pictures", file, ", writable=1");
    EXPECT_EQ(
        answer(connection, "INSERT INTO pictures VALUES (1, zeroblob(16777216)), (2, x'00FF')"),
        kNone);
    EXPECT_EQ(answer(connection, "SELECT ID, length(PICTURE), typeof(PICTURE) FROM pictures"),
              (Rows{"1|16777216|blob", "2|2|blob"}));
}

}  // namespace
