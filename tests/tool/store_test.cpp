// Values into fields: what fits, byte for byte, and why the rest does not.
#include "tables/store/store.h"

#include "cases.h"
#include "support.h"
#include "tables/change/append.h"
#include "tables/change/backup.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"

namespace {

using namespace test;
namespace tables = mira::tables;
using tables::Encoded;
using tables::encodeValue;
using tables::Given;

/// A table of these columns without records, open for writing. flags: descriptor bytes 18 and on of
/// each column.
std::unique_ptr<tables::Table> emptyTable(const TempDir& dir, unsigned char version,
                                          std::vector<Column> columns,
                                          const std::vector<std::string>& flags = {},
                                          Flavour flavour = kPlain) {
    const Layout layout{version, std::move(columns), {}, flavour};
    std::string bytes = layout.bytes();
    for (std::size_t i = 0; i < flags.size(); ++i)
        bytes.replace(32 + 32 * i + 18, flags[i].size(), flags[i]);
    writeAll(dir.file("t.dbf"), bytes);
    tables::TableOptions options;
    options.codePage = "1252";
    options.writable = true;
    return tables::openTable(dir.file("t.dbf"), options);
}

/// The bytes that a value becomes, or "!" and why it does not fit.
std::string stored(tables::Table& table, std::string_view name, const Given& given,
                   bool isNew = true) {
    Encoded encoded;
    const std::string before = recordOf(table.base.get());
    const std::string reason =
        encodeValue(table, tables::columnNamed(table, name), given, isNew, encoded);
    EXPECT_EQ(recordOf(table.base.get()), before) << "encoding leaves the record alone";
    return reason.empty() ? encoded.bytes : "!" + reason;
}

TEST(Store, CellsByType) {
    const TempDir dir;
    const auto table = emptyTable(dir, 0x03,
                                  {{"C", 'C', 6},
                                   {"N", 'N', 6, 2},
                                   {"P", 'N', 3, 2},
                                   {"F", 'F', 12, 4},
                                   {"D", 'D', 8},
                                   {"L", 'L', 1},
                                   {"T", 'T', 14},
                                   {"W", 'N', 4}});
    for (const auto& row : cases("cells", "typed")) {
        EXPECT_EQ(stored(*table, row[0], Given::cell(row[1])), row[2]) << row[0] << row[1];
    }
}

TEST(Store, NumbersAsGiven) {
    const TempDir dir;
    const auto table = emptyTable(dir, 0x03, {{"N", 'N', 6, 2}});
    for (const auto& row : cases("cells", "as given")) {
        Given given = Given::cell(row[0]);
        given.asGiven = true;
        EXPECT_EQ(stored(*table, "N", given), row[1]) << row[0];
    }
}

TEST(Store, BinaryTypes) {
    const TempDir dir;
    const auto table =
        emptyTable(dir, 0x30, {{"I", 'I', 4}, {"B", 'B', 8}, {"Y", 'Y', 8}, {"T", 'T', 8}});
    for (const auto& [cell, bytes] : std::vector<std::pair<std::string, std::string>>{
             {"I -2", "\xFE\xFF\xFF\xFF"},
             {"I 2147483648", "!\"2147483648\" does not fit I"},
             {"I 1.5", "!\"1.5\" is no whole number"},
             {"I ", "\0\0\0\0"s},
             {"B 1.5", "\0\0\0\0\0\0\xF8\x3F"s},
             {"B inf", "!\"inf\" is no number"},
             {"Y 4.56", "\x20\xB2\0\0\0\0\0\0"s},
             {"Y -0.0001", std::string(8, '\xFF')},
             {"Y 0.00001", "!\"0.00001\" has more than 4 decimals"},
             {"Y 922337203685477.5808", "!\"922337203685477.5808\" does not fit Y"},
             {"T 1970-01-01T00:00:01.250", "\x8C\x3D\x25\0\xE2\x04\0\0"s},
             {"T ", std::string(8, '\0')}}) {
        EXPECT_EQ(stored(*table, cell.substr(0, 1), Given::cell(cell.substr(2))), bytes) << cell;
    }
    EXPECT_EQ(stored(*table, "I", Given::cell(""), false), "!I cannot be blank; 0 is a value");
    EXPECT_EQ(stored(*table, "T", Given::cell(""), false), std::string(8, '\0'));
}

TEST(Store, TypedValues) {
    const TempDir dir;
    const auto table = emptyTable(dir, 0x30,
                                  {{"C", 'C', 6},
                                   {"N", 'N', 8, 2},
                                   {"I", 'I', 4},
                                   {"L", 'L', 1},
                                   {"Y", 'Y', 8},
                                   {"D", 'D', 8}});
    EXPECT_EQ(stored(*table, "C", Given::ofInteger(-12)), "-12   ");
    EXPECT_EQ(stored(*table, "C", Given::ofReal(0.5)), "0.5   ");
    EXPECT_EQ(stored(*table, "C", Given::ofText("base64:")), "!7 bytes do not fit C(6)");
    EXPECT_EQ(stored(*table, "C", Given::ofBlob("x")), "!a blob is no text");
    EXPECT_EQ(stored(*table, "C", Given::ofText("a\0b"s)), "!a text holds no zero byte");
    EXPECT_EQ(stored(*table, "N", Given::ofReal(10.340000000000002)), "   10.34")
        << "reals are rounded";
    EXPECT_EQ(stored(*table, "N", Given::ofReal(-0.001)), "    0.00");
    EXPECT_EQ(stored(*table, "N", Given::ofReal(99999.995)), "100000.0")
        << "fewer decimals, where they are 0";
    EXPECT_EQ(stored(*table, "N", Given::ofReal(1e300)).substr(0, 10), "!\"1e+300\" ");
    EXPECT_EQ(stored(*table, "N", Given::ofText(" 7 ")), "    7.00");
    EXPECT_EQ(stored(*table, "I", Given::ofReal(2.0)), "\2\0\0\0"s);
    EXPECT_EQ(stored(*table, "L", Given::ofInteger(0)), "F");
    EXPECT_EQ(stored(*table, "Y", Given::ofReal(0.00005)), "\1\0\0\0\0\0\0\0"s);
    EXPECT_EQ(stored(*table, "D", Given::ofText("2024-01-31 00:00:00")), "20240131");
    EXPECT_EQ(stored(*table, "D", Given::ofInteger(20240131)), "20240131");
}

TEST(Store, Level7Numbers) {
    const TempDir dir;
    const auto table =
        emptyTable(dir, 0x8C, {{"I", 'I', 4}, {"O", 'O', 8}, {"A", '+', 4}}, {}, kLevel7);
    EXPECT_EQ(stored(*table, "I", Given::cell("258")), "\0\0\1\2"s);
    EXPECT_EQ(stored(*table, "I", Given::cell("-1")), "!\"-1\" does not fit I") << "no sign there";
    EXPECT_EQ(stored(*table, "O", Given::cell("1.5")), "\xBF\xF8\0\0\0\0\0\0"s);
    tables::loadCounters(*table);
    EXPECT_EQ(stored(*table, "A", Given{}), "\0\0\0\1"s);
    tables::advanceCounters(*table);
    EXPECT_EQ(stored(*table, "A", Given::cell("2")), "\0\0\0\2"s);
    EXPECT_EQ(stored(*table, "A", Given::cell("5")), "!\"5\" is not the next value, 2");
    EXPECT_EQ(stored(*table, "A", Given{}, false), "!counts by itself and takes no value");
}

// Null flags: V takes a length bit, then a null bit; C a null bit; Q a length bit.
TEST(Store, NullFlagsAndLengths) {
    const TempDir dir;
    const auto table = emptyTable(
        dir, 0x30,
        {{"V", 'V', 5}, {"C", 'C', 3}, {"Q", 'Q', 4}, {"N", 'N', 2}, {"_NullFlags", '0', 1}},
        {"\2", "\2", "", "", "\5"});
    const auto put = [&](std::string_view name, const Given& given) {
        Encoded encoded;
        const tables::Column& column = tables::columnNamed(*table, name);
        EXPECT_EQ(encodeValue(*table, column, given, true, encoded), "");
        tables::putValue(*table, column, encoded);
        return recordOf(table->base.get());
    };
    tables::newRecord(*table);
    EXPECT_EQ(put("V", Given::cell("ab")), " ab  \2   "s + "\0\0\0\0"s + "  \1");
    EXPECT_EQ(put("V", Given::cell("abcde")), " abcde   "s + "\0\0\0\0"s + "  "s + "\0"s);
    EXPECT_EQ(put("V", Given::cell("")), " "s + "    \0"s + "   " + "\0\0\0\0"s + "  \3") << "null";
    EXPECT_EQ(put("V", Given::cell("", true)), " "s + "    \0"s + "   " + "\0\0\0\0"s + "  \1")
        << "empty";
    EXPECT_EQ(put("C", Given{}), " "s + "    \0"s + "   " + "\0\0\0\0"s + "  \5");
    EXPECT_EQ(put("Q", Given::cell("base64:AP8=")),
              " "s + "    \0"s + "   " + "\0\xFF\0\2"s + "  \x0D");
    EXPECT_EQ(put("C", Given::cell("x")), " "s + "    \0"s + "x  " + "\0\xFF\0\2"s + "  \x09");
    EXPECT_EQ(stored(*table, "Q", Given::cell("text")),
              "!\"text\" is text; bytes are written as \"base64:...\"");
    EXPECT_EQ(stored(*table, "Q", Given::cell("base64:A")), "!\"base64:A\" is no base64");
    EXPECT_EQ(stored(*table, "Q", Given::ofBlob("12345")), "!5 bytes do not fit Q(4)");
}

TEST(Store, AppendsAndCounts) {
    const TempDir dir;
    // Next value 7, step 5.
    const auto table = emptyTable(dir, 0x30, {{"ID", 'I', 4}, {"C", 'C', 2}}, {"\x0C\7\0\0\0\5"s});
    tables::loadCounters(*table);
    for (const char* text : {"a", "b"}) {
        std::vector<Encoded> values(2);
        EXPECT_EQ(encodeValue(*table, table->columns[0], Given{}, true, values[0]), "");
        EXPECT_EQ(encodeValue(*table, table->columns[1], Given::cell(text), true, values[1]), "");
        tables::advanceCounters(*table);
        tables::newRecord(*table);
        for (std::size_t i = 0; i < 2; ++i) tables::putValue(*table, table->columns[i], values[i]);
        tables::appendRecord(*table);
        EXPECT_EQ(readAll(dir.file("t.dbf")).substr(4, 4), "\0\0\0\0"s) << "not counted yet";
    }
    tables::finishAppend(*table);
    const std::string file = readAll(dir.file("t.dbf"));
    EXPECT_EQ(file.substr(4, 4), "\2\0\0\0"s);
    EXPECT_EQ(file.substr(32 + 19, 5), "\x11\0\0\0\5"s);
    EXPECT_EQ(file.substr(97), " \7\0\0\0a  \x0C\0\0\0b \x1A"s);
}

/// Where the header has no counter the next value is the one after the largest; nothing but the
/// count goes into the header.
TEST(Store, CountsOnWhereTheHeaderHasNoCounter) {
    for (const int version : {0x03, 0x8C}) {
        const TempDir dir;
        const bool level7 = version == 0x8C;
        const auto number = [&](u32 value) { return level7 ? be(value, 4) : le(value, 4); };
        Layout layout{static_cast<u8>(version),
                      {{"ID", '+', 4}, {"C", 'C', 1}},
                      {" " + number(9) + "a", "*" + number(4) + "b"},
                      level7 ? kLevel7 : kPlain};
        writeAll(dir.file("t.dbf"), layout.bytes());
        tables::TableOptions options;
        options.codePage = "1252";
        options.writable = true;
        const auto table = tables::openTable(dir.file("t.dbf"), options);
        tables::loadCounters(*table);
        std::vector<Encoded> values(2);
        EXPECT_EQ(encodeValue(*table, table->columns[0], Given{}, true, values[0]), "");
        EXPECT_EQ(encodeValue(*table, table->columns[1], Given::cell("c"), true, values[1]), "");
        tables::advanceCounters(*table);
        tables::newRecord(*table);
        for (std::size_t i = 0; i < 2; ++i) tables::putValue(*table, table->columns[i], values[i]);
        tables::appendRecord(*table);
        tables::finishAppend(*table);
        layout.records.push_back(" " + number(10) + "c");
        std::string wanted = layout.bytes().replace(1, 3, today());
        if (level7) wanted.replace(68 + 42, 4, le(11, 4));
        EXPECT_EQ(readAll(dir.file("t.dbf")), wanted) << version;
    }
}

TEST(Store, MemosAndBackups) {
    const TempDir dir;
    auto table = emptyTable(dir, 0x83, {{"M", 'M', 10}, {"G", 'G', 10}});
    EXPECT_EQ(stored(*table, "M", Given::cell("text")),
              "!the memo file is missing or cannot be written");
    ASSERT_EQ(mira::CreateMemoFile(dir.file("t.dbf").c_str(), 0, 0), 1);
    Encoded encoded;
    EXPECT_EQ(encodeValue(*table, table->columns[0], Given::cell("é\n"), true, encoded), "");
    EXPECT_EQ(readAll(dir.file("t.dbt")).size(), 512u) << "encoding writes nothing";
    tables::putValue(*table, table->columns[0], encoded);
    EXPECT_EQ(recordOf(table->base.get()).substr(1, 10), "         1");
    EXPECT_EQ(readAll(dir.file("t.dbt")).substr(512, 3), "\xE9\n\x1A");
    EXPECT_EQ(stored(*table, "M", Given::cell("base64:Gg==")),
              "!a memo of dBase III ends at a byte 1A, which the value holds");
    EXPECT_EQ(stored(*table, "G", Given::cell("")), "          ");

    const tables::ChangeNames names(table->path);
    const auto fileOf = [&](const char* name) { return readAll(dir.file(name)); };
    writeAll(dir.file("t.bak"), "old");
    writeAll(dir.file("t.tbk"), "its memos");
    tables::makeBackups(*table, names, 3);
    EXPECT_EQ(fileOf("t.bak"), fileOf("t.dbf"));
    EXPECT_EQ(fileOf("t.tbk"), fileOf("t.dbt"));
    EXPECT_EQ(fileOf("t.bak1") + fileOf("t.tbk1"), "oldits memos");
    {
        const FileSizeLimit full(20);
        EXPECT_THROW(tables::makeBackups(*table, names, 3), tables::Refusal);
    }
    EXPECT_TRUE(tables::removeNewFiles(names));
    EXPECT_EQ(fileOf("t.bak1"), "old") << "older copies outlive a failure";
    for (int i = 0; i < 3; ++i) tables::makeBackups(*table, names, 2);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.file("")), {}), 6);
}

TEST(Memos, EveryLayoutOfTheLibraryIsAFormatByName) {
    using tables::MemoFormat;
    for (u32 kind = 0; kind < 256; ++kind) {
        bool known = mira::GetMemoLayout(kind) == nullptr;
        for (const MemoFormat format :
             {MemoFormat::DBase3, MemoFormat::FoxPro, MemoFormat::DBase4, MemoFormat::Smt}) {
            const mira::MemoLayout* const own = mira::GetMemoLayout(static_cast<u32>(format));
            known = known || mira::GetMemoLayout(kind) == own;
        }
        EXPECT_TRUE(known) << kind;
    }
}

}  // namespace
