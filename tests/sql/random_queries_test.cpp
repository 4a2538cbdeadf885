// Random queries give over virtual tables what they give over ordinary ones that `mira export` has
// filled from the same files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>

#include "sqlite/letters.h"
#include "support.h"

namespace {

using namespace test;

class Dice {
public:
    explicit Dice(unsigned seed) : engine_(seed) {}
    std::size_t below(std::size_t count) { return engine_() % count; }
    bool once(std::size_t in) { return below(in) == 0; }
    template <typename List>
    std::string pick(const List& list) {
        return std::string(
            *(std::begin(list) + static_cast<std::ptrdiff_t>(below(std::size(list)))));
    }

private:
    std::mt19937 engine_;
};

constexpr const char* kTexts[] = {"anna", "ANNA", "Bolt", "bolt 8", "10",
                                  "9",    "5.0",  "",     "x%y",    "\x82\xA0"};
constexpr const char* kNumbers[] = {"1", "-1", "0", "10", "12.50", "9", "-0.5", "", "**", "1e3"};
constexpr const char* kDates[] = {"20240131", "19991231", "00000000", "", "2024"};

/// C, N with and without decimals, D, L, I; blanks and bytes that are no value among them.
Layout randomTable(Dice& dice, std::size_t records) {
    Layout layout{0x03,
                  {{"NAME", 'C', 8},
                   {"PRICE", 'N', 8, 2},
                   {"QTY", 'N', 5},
                   {"BORN", 'D', 8},
                   {"ACTIVE", 'L', 1},
                   {"ID", 'I', 4}}};
    for (std::size_t i = 0; i < records; ++i) {
        const auto left = [](std::string text, std::size_t width) {
            text.resize(width, ' ');
            return text;
        };
        const auto right = [](std::string text, std::size_t width) {
            return std::string(width - std::min(width, text.size()), ' ') + text;
        };
        layout.records.push_back((dice.once(9) ? "*" : " ") + left(dice.pick(kTexts), 8) +
                                 right(dice.pick(kNumbers), 8) + right(dice.pick(kNumbers), 5) +
                                 left(dice.pick(kDates), 8) + "TF? y"[dice.below(5)] +
                                 le(dice.below(12), 4));
    }
    return layout;
}

class Query {
public:
    explicit Query(Dice& dice) : dice_(dice) {}

    std::string text() {
        const bool join = dice_.once(2);
        const bool group = dice_.once(4);
        std::string from = " FROM big a";
        if (join) {
            second_ = true;
            const char* const tables[] = {"big", "small"};
            constexpr const char* kKinds[] = {" JOIN ", " LEFT JOIN ", " RIGHT JOIN ",
                                              " FULL JOIN "};
            const std::size_t kinds = sqlite3_libversion_number() >= 3039000 ? 4 : 2;
            from += kKinds[dice_.below(kinds)] + dice_.pick(tables) + " b ON " + joinCondition();
            if (dice_.once(3)) from += " AND " + condition(0);
        }
        std::string columns = column();
        std::string end;
        if (group) {
            end = " GROUP BY " + columns;
            columns += ", count(*), min(" + column() + "), max(" + column() + "), sum(a.QTY)";
        } else {
            columns += ", " + column() + ", a.ID";
        }
        const std::string where = dice_.once(5) ? "" : " WHERE " + condition(2);
        ordered_ = dice_.once(2);
        if (ordered_) {
            end += group ? " ORDER BY 1, 2, 3, 4, 5" : " ORDER BY 1, 2, 3";
            if (dice_.once(2)) end += " LIMIT " + std::to_string(dice_.below(20)) + " OFFSET 2";
        }
        return "SELECT " + std::string(dice_.once(6) && !group ? "DISTINCT " : "") + columns +
               from + where + end;
    }
    bool ordered() const { return ordered_; }

private:
    std::string column() {
        constexpr const char* kColumns[] = {"NAME",   "PRICE", "QTY",    "BORN",
                                            "ACTIVE", "ID",    "_record"};
        return (second_ && dice_.once(2) ? "b." : "a.") + dice_.pick(kColumns);
    }
    std::string constant() {
        constexpr const char* kConstants[] = {"'anna'",      "'Bolt'",
                                              "'10'",        "'9'",
                                              "''",          "10",
                                              "12.5",        "-1",
                                              "0",           "9.0",
                                              "NULL",        "'2024-01-31'",
                                              "x'616e6e61'", "9007199254740993",
                                              "'5.0'",       "(SELECT max(ID) FROM small)",
                                              "3",           "' 3'",
                                              "3.5",         "NULL"};
        return dice_.pick(kConstants);
    }
    std::string condition(int depth) {
        if (depth > 0 && dice_.once(2)) {
            return "(" + condition(depth - 1) + (dice_.once(2) ? " AND " : " OR ") +
                   condition(depth - 1) + ")";
        }
        constexpr const char* kOperators[] = {"=", "<", "<=", ">", ">=", "<>", "IS", "IS NOT"};
        constexpr const char* kSelected[] = {"NAME", "PRICE", "QTY", "ID + 0", "BORN", "_record"};
        constexpr const char* kPatterns[] = {"'an%'", "'%OL%'", "'_olt%'",   "'%'",
                                             "'1%0'", "'b*'",   "'*o[kl]t*'"};
        switch (dice_.below(9)) {
            case 0:
                return column() + " BETWEEN " + constant() + " AND " + constant();
            case 1:
                return column() + (dice_.once(3) ? " GLOB " : " LIKE ") + dice_.pick(kPatterns);
            case 2:
                return column() + " IS NULL";
            case 3:
                return column() + " IN (" + constant() + ", " + constant() + ")";
            case 4:
                return column() + " " + dice_.pick(kOperators) + " " + column();
            case 5:
                return column() + (dice_.once(4) ? " NOT IN " : " IN ") + "(SELECT " +
                       dice_.pick(kSelected) + " FROM small)";
            case 6:
                return "a._record " + dice_.pick(kOperators) + " " + constant();
            case 7:
                return "a.NAME " + dice_.pick(kOperators) + " " + constant() + " COLLATE NOCASE";
            default:
                return column() + " " + dice_.pick(kOperators) + " " + constant();
        }
    }
    std::string joinCondition() {
        constexpr const char* kJoins[] = {"b.ID = a.ID",     "b.NAME = a.NAME",
                                          "b.PRICE = a.QTY", "b.NAME = a.NAME AND b.QTY > a.QTY",
                                          "b.NAME = a.QTY",  "b.BORN < a.BORN",
                                          "b.NAME > a.PRICE"};
        return dice_.pick(kJoins);
    }

    Dice& dice_;
    bool second_ = false;
    bool ordered_ = false;
};

std::vector<std::string> rowsOf(const Connection& connection, const std::string& query,
                                bool ordered) {
    std::vector<std::string> rows = answer(connection, query, true);
    if (!ordered) std::sort(rows.begin(), rows.end());
    return rows;
}

TEST(Sql, RandomQueriesAnswerAsOverOrdinaryTables) {
    Folder folder;
    Dice dice(20240131);
    writeAll(folder.file("big.dbf"), randomTable(dice, 120).bytes());
    writeAll(folder.file("small.dbf"), randomTable(dice, 9).bytes());
    const std::string database = folder.file("plain.db");
    const std::string fill = "'" MIRA_PROGRAM "' export -q --record -o '" + database + "' '" +
                             folder.file("big.dbf") + "' '" + folder.file("small.dbf") +
                             "' 2>/dev/null";
    ASSERT_LT(WEXITSTATUS(std::system(fill.c_str())), 2);

    const Connection plain = connect(database);
    const Connection tables = connect();
    for (const std::string name : {"big", "small"}) {
        ASSERT_EQ(attach(tables, name, folder.file(name + ".dbf")), std::vector<std::string>());
    }
    for (int i = 0; i < 4000; ++i) {
        Query query(dice);
        const std::string text = query.text();
        ASSERT_EQ(rowsOf(tables, text, query.ordered()), rowsOf(plain, text, query.ordered()))
            << text;
    }
}

class Change {
public:
    explicit Change(Dice& dice) : dice_(dice) {}

    std::string text() {
        switch (dice_.below(6)) {
            case 0:
            case 1:
                return "INSERT INTO notes(NAME, QTY, NOTE) VALUES " + row() + ", " + row();
            case 2:
                return "INSERT INTO notes(NAME, QTY, NOTE) SELECT substr(NOTE, 1, 8), QTY, NAME || "
                       "QTY "
                       "FROM notes WHERE " +
                       condition() + " AND NOTE IS NOT NULL ORDER BY ID LIMIT 2";
            case 3:
                return "DELETE FROM notes WHERE " + condition();
            case 4:
                return "UPDATE notes SET " + set("QTY") + " WHERE " + condition();
            default:
                return "UPDATE notes SET " + set("b.SUM") +
                       " FROM (SELECT NAME, sum(QTY) % 1000 AS SUM FROM notes GROUP BY NAME) b "
                       "WHERE b.NAME = notes.NAME AND " +
                       condition();
        }
    }

private:
    std::string row() {
        return "('" + dice_.pick(kNames) + "', " + number() + ", 'memo " + number() + "')";
    }
    std::string number() { return std::to_string(dice_.below(50)); }
    std::string set(const std::string& number) {
        switch (dice_.below(3)) {
            case 0:
                return "QTY = " + number + " / 2";
            case 1:
                return "NOTE = 'm' || " + number;
            default:
                return "NAME = upper(notes.NAME)";
        }
    }
    std::string condition() {
        const std::string record = number();
        const std::string forms[] = {"_record = " + record,
                                     "_record = '" + record + "'",
                                     "_record = " + record + ".0",
                                     "notes.rowid = '" + record + "'",
                                     "_record = x'31'",
                                     "_record = " + record + ".5",
                                     "_record IN (" + record + ", '7', NULL)",
                                     "_record IN (SELECT QTY FROM notes WHERE ID < 9)",
                                     "NOTE LIKE '%" + record + "%'",
                                     "notes.NAME IN (SELECT QTY FROM notes)",
                                     "QTY < " + record};
        return dice_.pick(forms);
    }
    static constexpr const char* kNames[] = {"anna", "Bolt", "10", "9", "7"};
    Dice& dice_;
};

TEST(Sql, RandomChangesLeaveWhatOrdinaryTablesHold) {
    Folder folder;
    writeNotes(folder.file("notes.dbf"));
    const Connection tables = connect();
    ASSERT_EQ(attach(tables, "notes", folder.file("notes.dbf"), ", writable=1"),
              std::vector<std::string>());
    const Connection plain = connect();
    answer(plain,
           "CREATE TABLE notes(ID INTEGER PRIMARY KEY AUTOINCREMENT, NAME TEXT, QTY INTEGER, "
           "NOTE TEXT, _record INTEGER AS (ID))");
    Dice dice(20241124);
    for (int i = 0; i < 600; ++i) {
        const std::string text = Change(dice).text();
        ASSERT_EQ(answer(tables, text), std::vector<std::string>()) << text;
        ASSERT_EQ(answer(plain, text), std::vector<std::string>()) << text;
        const std::string all = "SELECT ID, NAME, QTY, NOTE, _record, rowid FROM notes";
        ASSERT_EQ(answer(tables, all, true), answer(plain, all, true)) << text;
    }
}

TEST(Sql, LikeOfAllLettersIsSqlitesOwnForAscii) {
    const Connection plain = connect();
    const Connection letters = connect();
    ASSERT_EQ(mira::sql::registerLetters(letters.get()), SQLITE_OK);
    Dice dice(20240229);
    constexpr const char* kPieces[] = {"a", "A", "b", "_", "%", "!", "%%", "ab", "[", "0"};
    const auto text = [&] {
        std::string pieces;
        for (std::size_t i = dice.below(7); i != 0; --i) pieces += dice.pick(kPieces);
        return "'" + pieces + "'";
    };
    for (int i = 0; i < 300; ++i) {
        std::string query = "SELECT 1";
        for (int k = 0; k < 50; ++k) {
            query += ", " + text() + " LIKE " + text() + (dice.once(3) ? " ESCAPE '!'" : "");
            query += ", " + text() + " < " + text() + " COLLATE NOCASE";
        }
        ASSERT_EQ(answer(letters, query), answer(plain, query)) << query;
    }
}

}  // namespace
