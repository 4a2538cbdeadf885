// Code pages: names, conversion both ways, and which page a table is in.
#include "tables/page/codepage.h"

#include "cases.h"
#include "support.h"
#include "tables/open/open.h"
#include "tables/page/pagenames.h"
#include "tables/page/text.h"
#include "tables/page/utf8.h"

namespace {

using namespace test;
using namespace mira::tables;

std::string decoded(const CodePage& page, std::string_view bytes, std::size_t* bad = nullptr) {
    std::string out;
    const std::size_t count = toUtf8(page, bytes, out);
    if (bad != nullptr) *bad = count;
    return out;
}

std::string nameOf(std::string_view spelling) {
    const auto page = openPage(spelling);
    return page ? pageName(*page) : "-";
}

TEST(CodePage, EveryMark) {
    int known = 0;
    for (const auto& row : cases("pages", "mark")) {
        const std::string& page = row[0];
        for (const std::string& hex : split(row[1], ' ')) {
            const int mark = std::stoi(hex, nullptr, 16);
            EXPECT_EQ(nameOf("LDID/" + std::to_string(mark)), page) << hex;
            ++known;
        }
        EXPECT_EQ(pageOfMark(markOf(*openPage(page))), page);
    }
    for (int mark = 0; mark < 256; ++mark) {
        known -= pageOfMark(static_cast<mira::u8>(mark)) != nullptr ? 1 : 0;
    }
    EXPECT_EQ(known, 0) << "marks that no row of the list has";
}

TEST(CodePage, Spellings) {
    for (const auto& row : cases("pages", "name")) {
        EXPECT_EQ(nameOf(row[0]), row[1]) << row[0];
    }
    // An empty name would be the locale's page, "//" begins an option; texts in pages without
    // ASCII cannot be told from blanks.
    for (const char* unknown : {"", " ", "LDID/0", "LDID/127", "LDID/300", "LDID/x", "8859-12",
                                "8859-17", "UTF-8//IGNORE", "ASCII//TRANSLIT", "../../x", "CP99999",
                                "UTF-16", "UTF-7", "ISO-2022-JP", "no such page"}) {
        EXPECT_EQ(nameOf(unknown), "-") << unknown;
    }
}

TEST(CodePage, PagesOfTheirOwn) {
    for (const auto& row : cases("pages", "own")) {
        EXPECT_EQ(decoded(*openPage(row[0]), row[1]), row[2]);
    }
}

TEST(CodePage, SingleBytesThereAndBack) {
    for (const char* name :
         {"437",   "737",  "850",  "852",   "855",    "857",    "860",    "861",
          "862",   "863",  "865",  "866",   "874",    "1250",   "1251",   "1252",
          "1253",  "1254", "1255", "1256",  "1257",   "1258",   "10000",  "10007",
          "10029", "620",  "895",  "10006", "KOI8-R", "8859-1", "8859-15"}) {
        const auto page = openPage(name);
        ASSERT_TRUE(page) << name;
        std::string bytes;
        for (int i = 0; i < 256; ++i) {
            std::size_t bad = 0;
            decoded(*page, std::string(1, static_cast<char>(i)), &bad);
            if (bad == 0) bytes += static_cast<char>(i);
        }
        std::string back;
        EXPECT_TRUE(fromUtf8(*page, decoded(*page, bytes), back)) << name;
        EXPECT_EQ(back, bytes) << name;
        EXPECT_GE(bytes.size(), 220u) << name;
    }
}

/// What bytes become, with the number of replacements in front.
std::string counted(std::string_view spelling, std::string_view bytes) {
    std::size_t bad = 0;
    const std::string text = decoded(*openPage(spelling), bytes, &bad);
    return std::to_string(bad) + " " + text;
}

TEST(CodePage, BytesWithoutCharacter) {
    EXPECT_EQ(counted("1252", "a\x81\x80z\x9D"), "2 a\uFFFD€z\uFFFD");
    EXPECT_EQ(counted("1255", "\xE0\xC8\xD9"), "1 א\u05B8\uFFFD") << "letter and point stay two";
    EXPECT_EQ(counted("UTF-8", "caf\xC3\xA9 \xC3"), "1 café \uFFFD") << "cut";
    EXPECT_EQ(counted("UTF-8", "\xC0\x80\xE2\x82\xED\xA0\x80\xF5x"),
              "7 " + repeat("\uFFFD", 7) + "x");
    EXPECT_EQ(counted("932", "\x93\xFA\x96\x7B\x93"), "1 日本\uFFFD") << "cut";
    EXPECT_EQ(counted("932",
                      "\x81"
                      "1\xB1"),
              "1 \uFFFD"
              "1ｱ")
        << "no second byte";
    EXPECT_EQ(counted("936",
                      "\xD6\xD0\xFF"
                      "a"),
              "1 中\uFFFDa");
    EXPECT_EQ(counted("949", "\xC7\xD1"), "0 한");
    EXPECT_EQ(counted("950", "\xA4\xA4\xA4"), "1 中\uFFFD");
    const std::string longText = repeat("plain text \x8D\xA5 ", 1000);
    EXPECT_EQ(counted("866", longText), "0 " + repeat("plain text Не ", 1000))
        << "more than any buffer holds";
    EXPECT_EQ(counted("936", repeat("ab\xD6\xD0", 2000)), "0 " + repeat("ab中", 2000));
}

TEST(CodePage, CharactersThatThePageLacks) {
    for (const auto& row : cases("pages", "lacks")) {
        const std::string &name = row[0], &lacking = row[1];
        std::string bytes = "<";
        std::string bad;
        EXPECT_FALSE(fromUtf8(*openPage(name), "ab" + lacking + "cd", bytes, &bad)) << name;
        EXPECT_EQ(bytes, "<ab") << name;
        EXPECT_EQ(bad, lacking == "\xFF" ? "\uFFFD" : lacking) << name;
    }
    std::string bytes;
    EXPECT_TRUE(fromUtf8(*openPage("932"), "a日本b", bytes));
    EXPECT_EQ(bytes,
              "a\x93\xFA\x96\x7B"
              "b");
}

TEST(CodePage, UpperCase) {
    for (const auto& row : cases("pages", "upper")) {
        const auto page = openPage(row[0]);
        std::string bytes;
        ASSERT_TRUE(fromUtf8(*page, row[1], bytes));
        foldCase(*page, bytes);
        EXPECT_EQ(decoded(*page, bytes), row[2]) << row[0];
    }
    std::string broken = "a\x93\xFA\x93";
    foldCase(*openPage("932"), broken);
    EXPECT_EQ(broken, "A\x93\xFA\x93");
}

TEST(Letters, UpperAndLowerCase) {
    const std::string mixed = "Дым ςΣ Straße ÿ İ \xE4\xFF a1\xC3";
    EXPECT_EQ(upperText(mixed), "ДЫМ ΣΣ STRAßE Ÿ İ \xE4\xFF A1\xC3");
    EXPECT_EQ(lowerText(mixed), "дым ςσ straße ÿ i \xE4\xFF a1\xC3");
    for (const auto& row : cases("pages", "fold")) {
        const auto folded = [&](std::size_t i) { return foldLetter(stepUtf8(row[i]).letter); };
        EXPECT_EQ(folded(0), folded(1)) << row[0];
    }
    EXPECT_NE(foldLetter(U'е'), foldLetter(U'ё'));
}

// ---------------------------------------------------------------------------------------------
// The page of a table
// ---------------------------------------------------------------------------------------------

/// A table of one C field with a mark and a text per record.
std::string tableWith(int mark, const std::vector<std::string>& texts, unsigned char version = 3,
                      std::string_view driver = "") {
    Layout layout{version, {{"T", 'C', 40}, {"N", 'N', 4}}, {}, driver.empty() ? kPlain : kLevel7};
    for (const std::string& text : texts) layout.records.push_back(" " + padded(text, 40) + "   1");
    std::string bytes = layout.bytes();
    bytes[29] = static_cast<char>(mark);
    if (layout.flavour == kLevel7) bytes.replace(32, driver.size(), driver);
    return bytes;
}

/// "page from", "?" after it when uncertain, and the number of notes when there are any.
std::string choice(const test::Table& table, std::string_view option = "") {
    const PageChoice chosen = choosePage(table.get(), option);
    std::string text = chosen.page ? pageName(*chosen.page) : "-";
    text += " " + chosen.from + (chosen.uncertain ? "?" : "");
    if (!chosen.notes.empty()) text += " " + std::to_string(chosen.notes.size());
    return text;
}
std::string choiceOf(const std::string& bytes, std::string_view option = "") {
    const TempDir dir;
    return choice(openBytes(dir, bytes), option);
}

const std::string kRussian866 = "\x8F\xE0\xA8\xA2\xA5\xE2 \xAC\xA8\xE0 \xA8 \xA4\xAE\xAC";
const std::string kRussian1251 = "\xCF\xF0\xE8\xE2\xE5\xF2 \xEC\xE8\xF0 \xE8 \xE4\xEE\xEC";

TEST(PageOfTable, Order) {
    const TempDir dir;
    const test::Table table = openBytes(dir, tableWith(0x26, {"x"}), "Stock.dbf");
    EXPECT_EQ(choice(table), "CP866 mark 0x26");
    writeAll(dir.file("STOCK.CPG"), "\xEF\xBB\xBF utf8 \r\n");
    EXPECT_EQ(choice(table), "UTF-8 .cpg") << "in any letter case";
    writeAll(dir.file("Stock.cpg"),
             "\xFF\xFE"
             "1\0"
             "2\0"
             "5\0"
             "2\0"s);
    EXPECT_EQ(choice(table), "CP1252 .cpg") << "the table's own letter case first";
    EXPECT_EQ(choice(openBytes(dir, tableWith(0x26, {"caf\xE9"}), "Stock.dbf")), "CP1252 .cpg");
    EXPECT_EQ(choice(openBytes(dir, tableWith(0x26, {"café"}), "Stock.dbf")), "UTF-8 UTF-8 text 1")
        << "texts in UTF-8 gainsay a single-byte page";
    EXPECT_EQ(choice(table, "kamenicky"), "895 --code-page");
    EXPECT_EQ(choice(table, "nothing"), "- --code-page 1");
    for (const std::string& line : {"nothing"s, ""s, "CP1251" + std::string(60, '.')}) {
        writeAll(dir.file("Stock.cpg"), line);
        EXPECT_EQ(choice(table), "CP866 mark 0x26 1") << line;
    }
}

TEST(Listing, ReadsAFolderOnce) {
    const TempDir dir;
    for (const char* name : {"stock.DBF", "Stock.CDX", "both.ndx", "BOTH.NDX"}) {
        writeAll(dir.file(name), "x");
    }
    Listing listing;
    EXPECT_EQ(tablesIn(dir.file(""), false, &listing), std::vector{dir.file("stock.DBF")});
    std::filesystem::rename(dir.file("stock.DBF"), dir.file("other.dbf"));
    EXPECT_EQ(inAnyCase(dir.file("STOCK.dbf"), &listing), dir.file("stock.DBF"));
    EXPECT_EQ(inAnyCase(dir.file("STOCK.dbf")), "");
    EXPECT_EQ(indexFilesBeside(dir.file("stock.DBF"), &listing),
              std::vector{dir.file("Stock.CDX")});
    EXPECT_EQ(beside(dir.file("both.dbf"), ".ndx", &listing), dir.file("both.ndx"));
    EXPECT_EQ(beside(dir.file("Both.dbf"), ".ndx", &listing), "") << "which one?";
}

TEST(PageOfTable, Drivers) {
    for (const auto& row : cases("pages", "driver")) {
        EXPECT_EQ(choiceOf(tableWith(0, {"x"}, 4, row[0])), row[1]);
    }
    EXPECT_EQ(choiceOf(tableWith(0x03, {"x"}, 4, "DB866RU0")), "CP1252 mark 0x03");
    EXPECT_EQ(choiceOf(tableWith(0, {"при"}, 4, "DB866RU0")), "UTF-8 UTF-8 text");
}

TEST(PageOfTable, WeakMarks) {
    const std::vector<std::string> latin = {"caf\xE9", "x"};
    EXPECT_EQ(choiceOf(tableWith(0x57, {"café", "x"})), "UTF-8 UTF-8 text");
    EXPECT_EQ(choiceOf(tableWith(0x57, {"cafe"})), "CP1252 mark 0x57");
    EXPECT_EQ(choiceOf(tableWith(0x57, latin)), "CP1252 mark 0x57?");
    EXPECT_EQ(choiceOf(tableWith(0x03, {"café"})), "CP1252 mark 0x03") << "a strong one";
    EXPECT_EQ(choiceOf(tableWith(0, latin)), "CP1252 guess?");
    EXPECT_EQ(choiceOf(tableWith(0, {"x"})), "CP437 default");
    EXPECT_EQ(choiceOf(tableWith(0, {" \xE9 "}, 0x30)), "CP1252 default?");
    EXPECT_EQ(choiceOf(tableWith(0x7F, {"x"})), "CP437 default 1") << "an unknown mark";
    EXPECT_EQ(choiceOf(tableWith(0, {"é" + std::string(37, 'x') + "é", "x"})), "UTF-8 UTF-8 text")
        << "cut where the field ends";
    EXPECT_EQ(choiceOf(tableWith(0, {std::string(39, '.') + "\xC3"})), "CP437 default?")
        << "a cut alone is no evidence";
    std::vector<std::string> late(40000, "plain");
    late[38000] = "café";
    EXPECT_EQ(choiceOf(tableWith(0, late)), "UTF-8 UTF-8 text") << "in the last stretch";
}

/// The last byte of a V field is the length of a text that does not fill it, and no letter.
TEST(PageOfTable, LengthsOfVarcharsAreNoText) {
    Layout layout{0x30, {{"V", 'V', 160}}, {}};
    layout.records = {" " + padded("café" + std::string(145, '.'), 159) + "\x96"};
    EXPECT_EQ(choiceOf(layout.bytes()), "UTF-8 UTF-8 text");
    layout.columns[0].type = 'C';
    EXPECT_EQ(choiceOf(layout.bytes()), "CP1252 guess?");
}

TEST(PageOfTable, Guess) {
    const std::vector<std::string> russian(8, kRussian866 + " " + kRussian866);
    EXPECT_EQ(choiceOf(tableWith(0, russian)), "CP866 guess?");
    EXPECT_EQ(choiceOf(tableWith(0, {8, kRussian1251 + " " + kRussian1251})), "CP1251 guess?");
    EXPECT_EQ(choiceOf(tableWith(0, {kRussian866, kRussian866})), "CP437 default?") << "24 letters";
    EXPECT_EQ(choiceOf(tableWith(0x57, russian)), "CP1252 mark 0x57?") << "only after 00";
}

TEST(PageOfTable, CyrillicCapitals) {
    const std::string words = "ПРИВЕТ МИР И ДОМ";
    for (const std::string name : {"CP866", "CP1251"}) {
        std::string bytes;
        ASSERT_TRUE(fromUtf8(*openPage(name), words, bytes));
        EXPECT_EQ(choiceOf(tableWith(0, {8, bytes})), name + " guess?");
    }
}

TEST(PageOfTable, WesternLetters) {
    for (const auto& [text, expected] : std::vector<std::pair<std::string, std::string>>{
             {"gar\x87on na\x8Bve \x82t\x82", "CP437 guess?"},
             {"M\xFCller, Z\xFCrich, gar\xE7on", "CP1252 guess?"},
             {"Stra\xE1"
              "e",
              "CP437 default?"},
             {"M\x81ller Stra\xE1"
              "e",
              "CP437 default?"},
             {"\xC4\xC4\xC4 \xB3", "CP437 default?"}}) {
        EXPECT_EQ(choiceOf(tableWith(0, {text})), expected) << text;
        EXPECT_EQ(choiceOf(tableWith(0x57, {text})), "CP1252 mark 0x57?") << "only after 00";
    }
    EXPECT_EQ(choiceOf(tableWith(0, {"gar\x87on"}, 0x30)), "CP437 guess?");
}

/// A FoxPro table of one memo field, with a memo file of one block of 64 bytes at block 8.
test::Table memoTable(const TempDir& dir, std::string_view memo, std::string_view reference,
                      unsigned char flags = 0, unsigned char version = 0xF5) {
    Layout layout{
        version, {{"M", 'M', version == 0xF5 ? 10u : 4u}}, {" " + std::string(reference)}};
    std::string bytes = layout.bytes();
    bytes[32 + 18] = static_cast<char>(flags);
    std::string file(512, '\0');
    file[7] = 64;
    file += "\0\0\0\1\0\0\0"s + static_cast<char>(memo.size()) + padded(memo, 56);
    writeAll(dir.file("t.fpt"), file);
    return openBytes(dir, bytes);
}

TEST(PageOfTable, Memos) {
    const TempDir dir;
    EXPECT_EQ(choice(memoTable(dir, "café", "         8")), "UTF-8 UTF-8 text");
    EXPECT_EQ(choice(memoTable(dir, "caf\0é"s, "         8")), "CP437 default") << "binary";
    EXPECT_EQ(choice(memoTable(dir, "café", "4294967295")), "CP437 default") << "leads nowhere";
    EXPECT_EQ(choice(memoTable(dir, "café", "\x08\0\0\0"s, 4, 0x30)), "CP1252 default") << "binary";
    EXPECT_EQ(choice(memoTable(dir, "café", "\x08\0\0\0"s, 0, 0x30)), "UTF-8 UTF-8 text");
    std::filesystem::remove(dir.file("t.fpt"));
    EXPECT_EQ(choice(openBytes(dir, readAll(dir.file("t.dbf")))), "CP1252 default") << "no file";
}

}  // namespace
