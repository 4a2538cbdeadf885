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
    Layout layout{0x03,
                  {{"CODE", 'C', 4}, {"PRICE", 'N', 6, 2}, {"QTY", 'N', 3}, {"SOLD", 'L', 1}}};
    for (std::size_t i = 0; i < records; ++i) {
        layout.records.push_back(" A" + padded(std::to_string(i), 3, ' ') + "  1.50 07T");
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
                          "writable, reindex, exact, long_names, as_text"});
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

TEST_F(SqlModule, SpeaksUtf8WhateverTheNames) {
    EXPECT_EQ(attach(connection, "x", folder.file("a\xFF.dbf")),
              Rows{folder.file("a\\xFF.dbf") + ": no such table"});
    writeAll(folder.file("a\xFF.dbf"), "torn");
    const Rows report = answer(connection, "SELECT mira_attach('" + folder.file("") + "')");
    EXPECT_NE(report[0].find("a\\xFF.dbf: "), std::string::npos) << report[0];
}

TEST_F(SqlModule, PromisesOneRowForWholeNumbersOnly) {
    for (const char* number : {"2", "'2'", "2.0", "(SELECT 2)", "'02'"}) {
        const std::string where = std::string(" WHERE _record = ") + number;
        EXPECT_EQ(answer(connection, "SELECT CODE FROM goods" + where), Rows{"A1"}) << number;
        EXPECT_EQ(answer(connection, "UPDATE goods SET QTY = QTY + 1" + where), kNone) << number;
    }
    EXPECT_EQ(answer(connection, "SELECT QTY FROM goods"), (Rows{"7", "12", "7"}));
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
        {"UPDATE goods SET SOLD = x'31'", "record 1, SOLD: a blob does not fit L"},
        {"UPDATE goods SET PRICE = x'31'", "record 1, PRICE: a blob does not fit N(6,2)"},
        {"UPDATE goods SET PRICE = CAST(x'FF' AS TEXT)", "record 1, PRICE: \"\\xFF\" is no number"},
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
}

TEST_F(SqlWriting, RefusesTablesForReading) {
    const std::string before = readAll(path);
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

struct Notes : testing::Test {
    Folder folder;
    std::string path = folder.file("notes.dbf");
    Connection connection = connect();

    Notes() {
        writeNotes(path);
        attach(connection, "notes", path, ", writable=1");
        answer(connection,
               "INSERT INTO notes(NAME, QTY, WIDE, NOTE) VALUES "
               "('anna', 1, '12345678901234567891', 'memo one'), ('bolt', 2, NULL, 'memo two')");
        // A deletion byte and a number that are none, and a second memo that is nowhere.
        std::string bytes = readAll(path);
        bytes[bytes.find("anna") - 5] = '\0';
        bytes.replace(bytes.find("bolt") + 8, 5, "   **");
        bytes.replace(bytes.find("bolt") + 8 + 5 + 20, 4, le(9999, 4));
        overwrite(path, bytes);
    }
    std::string memos() const { return readAll(folder.file("notes.fpt")); }
    /// Of the table, without the date of the last update.
    std::string records() const { return readAll(path).substr(4); }
};
using SqlNotes = Notes;

TEST_F(SqlNotes, UpdateFromStoresOnlyWhatIsAnother) {
    answer(connection, "CREATE TEMP TABLE source(NR, TITLE)");
    answer(connection, "INSERT INTO source VALUES (1, 'ANNA'), (2, 'BOLT')");
    std::string expected = records();
    expected.replace(expected.find("anna"), 4, "ANNA");
    expected.replace(expected.find("bolt"), 4, "BOLT");
    const std::string before = memos();
    EXPECT_EQ(answer(connection, "UPDATE notes SET NAME = TITLE FROM source WHERE NR = ID"), kNone);
    EXPECT_EQ(records(), expected);
    EXPECT_EQ(answer(connection, "UPDATE notes SET WIDE = WIDE, NAME = NAME"), kNone);
    EXPECT_EQ(records(), expected);
    EXPECT_EQ(memos(), before);
}

TEST_F(SqlNotes, BuildsNothingOnMemosThatCannotBeRead) {
    const std::string before = readAll(path);
    for (const char* statement :
         {"UPDATE notes SET NOTE = NOTE || '!'", "DELETE FROM notes WHERE NOTE IS NULL",
          "UPDATE notes SET NAME = 'x' WHERE NOTE NOT LIKE 'z%'",
          "UPDATE notes SET NAME = b.NOTE FROM notes b WHERE b.ID = notes.ID",
          "CREATE TEMP TABLE copy AS SELECT * FROM notes"}) {
        EXPECT_EQ(answer(connection, statement),
                  Rows{path + ": record 2, NOTE: the memo cannot be read whole, and so nothing is "
                              "made of it"})
            << statement;
        EXPECT_EQ(readAll(path), before) << statement;
    }
    EXPECT_EQ(answer(connection, "UPDATE notes SET NOTE = 'new' WHERE ID = 2"), kNone);
    EXPECT_EQ(answer(connection, "SELECT NOTE FROM notes"), (Rows{"memo one", "new"}));
}

TEST_F(SqlNotes, TellsWhatItCouldNotKeepOnce) {
    warnings.clear();
    const std::string all = "SELECT a.*, b.WIDE FROM notes a, notes b WHERE a.WIDE > 1 OR a.ID > 0";
    EXPECT_EQ(answer(connection, all).size(), 4U);
    answer(connection, all);
    EXPECT_EQ(
        warnings,
        path + ": 1 value that is no number came out empty, first in record 2, field QTY\n" + path +
            ": 1 memo cannot be read and came out empty, first in record 2, field NOTE\n" + path +
            ": 1 number of more than 15 digits is rounded, first in record 1, field "
            "WIDE; exact=1 keeps all digits\n");
    attach(connection, "exact", path, ", exact=1");
    EXPECT_EQ(answer(connection, "SELECT WIDE FROM exact WHERE WIDE = '12345678901234567891'"),
              Rows{"12345678901234567891"});
}

TEST_F(SqlNotes, WritesIntoTheFileThatHasTheName) {
    const std::string old = readAll(path);
    const std::string other = folder.file("other.dbf");
    std::filesystem::copy(path, other);
    std::filesystem::rename(path, folder.file("away.dbf"));
    std::filesystem::rename(other, path);
    EXPECT_EQ(answer(connection, "UPDATE notes SET NAME = 'new' WHERE ID = 1"), kNone);
    EXPECT_EQ(answer(connection, "SELECT NAME FROM notes"), (Rows{"new", "bolt"}));
    EXPECT_EQ(readAll(folder.file("away.dbf")), old);
    // While a statement runs: refused.
    const auto replace = [](sqlite3_context* context, int, sqlite3_value**) {
        const std::string name = *static_cast<std::string*>(sqlite3_user_data(context));
        std::filesystem::copy(name, name + "2");
        std::filesystem::rename(name + "2", name);
    };
    sqlite3_create_function(connection.get(), "replace_it", 0, SQLITE_UTF8, &path, replace, nullptr,
                            nullptr);
    const std::string before = readAll(path);
    const Rows rows = answer(connection,
                             "UPDATE notes SET NAME = coalesce(replace_it(), 'lost') "
                             "WHERE ID = 1");
    EXPECT_NE(rows[0].find("another program has replaced the file"), std::string::npos) << rows[0];
    EXPECT_EQ(readAll(path), before);
    std::filesystem::remove(path);
    EXPECT_NE(answer(connection, "INSERT INTO notes(NAME) VALUES ('x')"), kNone);
}

}  // namespace
