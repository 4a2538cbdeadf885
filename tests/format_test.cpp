// Header and descriptors: what opens, what is repaired, what is refused.
#include <cstring>

#include "dbf/table/private.h"
#include "support.h"

using namespace mira;
using namespace test;

namespace {

const Layout kOneField = {0x03, {{"NAME", 'C', 5}}, {" Anna ", "*Berta"}};

TEST(Format, ReadsHeaderAndDescriptors) {
    TempDir dir;
    Layout layout{0x31, {{"ID", 'I', 4}, {"LONGNAME12", 'C', 44, 1}, {"PRICE", 'N', 10, 2}}, {}};
    const Table h = openLayout(dir, layout);
    EXPECT_EQ(h->Status + h->Level7, 0u);
    EXPECT_STREQ(h->Fields[1].Name, "LONGNAME12");
    EXPECT_EQ(GetLenField(h.get(), 1), 300u);
    EXPECT_EQ(h->Fields[2].Offset, 305);
    EXPECT_EQ(h->Header.RecordLength, 315);
    EXPECT_EQ(h->FirstMemoField, -1);
    EXPECT_EQ(h->BackupName, dir.file("t.bak"));
}

TEST(Format, RepairsVersionRecordCountAndLength) {
    TempDir dir;
    const std::string accepted =
        "\x02\x03\x04\x30\x31\x43\x63\x83\x8B\x8C\xCB\xF5\xFB\xE5\x32\x42\x62\x82\x8A\xCA\xF4\xFA";
    std::string bytes = kOneField.bytes();
    for (int version = 0; version < 256; ++version) {
        bytes[0] = static_cast<char>(version);
        const bool known = accepted.find(bytes[0]) != std::string::npos;
        const Table h = openBytes(dir, bytes);
        EXPECT_EQ(h->Status, known ? 0u : 1u) << version;
        EXPECT_EQ(h->Header.Version, known ? version : 0x03) << version;
    }
    EXPECT_EQ(openLayout(dir, {0x05, {{"TEXT", 'M', 10}}, {}})->Header.Version, 0xF5);
    const Table h = openBytes(dir, kOneField.bytes().replace(4, 1, "M").replace(10, 1, "c"));
    EXPECT_EQ(h->Status, 4u);
    EXPECT_EQ(reccount(h.get()), 2u);
    EXPECT_EQ(h->Header.RecordLength, 6);
}

TEST(Format, DecimalBytesAndTypeLetters) {
    TempDir dir;
    Layout layout{0x03, {{"A", 'C', 16, 1}}, {}};
    EXPECT_EQ(GetLenField(openLayout(dir, layout).get(), 0), 272u);
    std::string bytes = layout.bytes();
    bytes.replace(10, 2, le(17, 2));  // the record length says that the decimal byte is no length
    const Table h = openBytes(dir, bytes);
    EXPECT_EQ(h->HighLength, 1u);
    EXPECT_EQ(GetLenField(h.get(), 0), 16u);

    layout = {0x03, {{"A", 'C', 2}, {"B", 'P', 2}}, {" aabb"}};
    EXPECT_EQ(openLayout(dir, layout)->Status, 2u);
    layout.columns.push_back({"C", 'X', 1});
    EXPECT_FALSE(openLayout(dir, layout)) << "more invalid letters than valid ones";
}

TEST(Format, ReadsLevel7) {
    TempDir dir;
    Layout layout{0x8C, {{"A_NAME_OF_THIRTY_ONE_CHARACTERS", 'C', 3}, {"N", 'I', 4}}, {}, true};
    layout.records.assign(9, " abc\x80\x00\x00\x05"s);
    Table h = openLayout(dir, layout);
    ASSERT_EQ(h->Level7, 1u);
    EXPECT_EQ(h->Fields[0].Name, layout.columns[0].name);
    ASSERT_TRUE(ReadRecord(h.get(), 0));
    EXPECT_EQ(GetInt(h.get(), 1), 5u);
    SetInt(h.get(), 1, 0xFFFFFFFF);
    EXPECT_EQ(std::memcmp(h->RecordBuffer + 4, "\x7F\xFF\xFF\xFF", 4), 0);

    // Other makers keep the length one byte earlier; only a matching record length says so.
    std::string bytes = layout.bytes();
    for (std::size_t place : {68u + 33, 68u + 48 + 33}) std::swap(bytes[place], bytes[place + 1]);
    h = openBytes(dir, bytes);
    ASSERT_TRUE(isForeignLevel7(h.get()));
    bytes[68 + 2 * 48] = 0;  // the terminator
    h = openBytes(dir, bytes);
    ASSERT_TRUE(isForeignLevel7(h.get()) && h->FieldCount == 2);
    ASSERT_TRUE(ReadRecord(h.get(), 0));
    EXPECT_STREQ(GetStr(h.get(), 0), "abc");
    EXPECT_STREQ(GetStr(h.get(), 1), "         5");
    SetInt(h.get(), 1, static_cast<u32>(-1));
    EXPECT_EQ(std::memcmp(h->RecordBuffer + 4, "\x7F\xFF\xFF\xFF", 4), 0);
    EXPECT_EQ(GetValue(h.get(), 1), -1.0);

    bytes = layout.bytes().replace(10, 2, le(1, 2));
    EXPECT_EQ(GetLenField(openBytes(dir, bytes).get(), 0), 3u) << "1 is no sum of lengths";
}

/// Where the field list of a table of three fields should end, something else.
struct BadEnd {
    const char* name;
    bool level7;
    unsigned backLink;  ///< bytes that the header has after the terminator
    int at;             ///< where bytes are replaced, counted from the terminator
    std::string bytes;
    int headerChange;

    std::string table() const {
        Layout layout{0x30, {{"A", 'C', 5}, {"B", 'N', 6, 2}, {"D", 'D', 8}}, {}, level7};
        layout.records.assign(4, " Anna   1.5020240229");
        std::string out = layout.bytes();
        const std::size_t end = layout.headerLength() - 1;
        out.insert(end + 1, backLink, 0);
        out.replace(8, 2, le(end + 1 + backLink + static_cast<unsigned>(headerChange), 2));
        out.erase(end, headerChange == 0 ? 0 : 1);
        return out.replace(end + static_cast<std::size_t>(at), bytes.size(), bytes);
    }
};

TEST(Format, ListsWithoutASoundTerminatorEndWithTheHeader) {
    const BadEnd cases[] = {{"sound", false, 263, 0, "", 0},
                            {"overwritten", false, 0, 0, "\n", 0},
                            {"missing", false, 0, 0, "", -1},
                            {"in the place of a name", false, 0, -64, "\r", 0},
                            {"inside a name", false, 0, -63, "\r", 0},
                            {"before a back link", false, 263, 0, "\n", 0},
                            {"before the path of a database", false, 263, 0, "\nstock.dbc", 0},
                            {"level 7", true, 0, 0, "x", 0}};
    const TempDir dir;
    for (const BadEnd& c : cases) {
        for (const std::size_t left : {0u, 1u}) {  // without the end byte, too
            const std::string bytes = c.table();
            const Table h = openBytes(dir, bytes.substr(0, bytes.size() - left));
            ASSERT_TRUE(h && h->FieldCount == 3 && h->Status == 0) << c.name;
            EXPECT_TRUE(ReadRecord(h.get(), 3)) << c.name;
            EXPECT_EQ(GetStr(h.get(), 2), "20240229"s) << c.name;
        }
    }
    // Where the header does not fit the file the list goes on into the records.
    for (const std::size_t place : {4u, 8u, 10u}) {  // record count, header and record length
        std::string bytes = cases[1].table();
        --bytes[place];
        EXPECT_EQ(openBytes(dir, bytes)->FieldCount, 5) << place;
    }
}

TEST(Format, BlanksEveryType) {
    TempDir dir;
    Layout layout{0x03, {{"B8", 'B', 8}, {"B10", 'B', 10}, {"M10", 'M', 10}, {"M4", 'M', 4}}, {}};
    layout.columns.insert(layout.columns.end(), {{"T14", 'T', 14}, {"T8", 'T', 8}});
    for (char type : "CNFDLV"s + "IY+0OQWX") layout.columns.push_back({"F", type, 2});
    const Table h = openLayout(dir, layout);
    std::memset(h->RecordBuffer, 'x', 65535);
    ClearRecord(h.get());
    const std::string expected = " " + std::string(8, 0) + std::string(20, ' ') +
                                 std::string(4, 0) + std::string(14, ' ') + std::string(8, 0) +
                                 std::string(12, ' ') + std::string(16, 0) + "x";
    EXPECT_EQ(std::string(reinterpret_cast<char*>(h->RecordBuffer), expected.size()), expected);
    h->Header.Version = 0xE5;
    EXPECT_EQ(FieldBlankChar(h.get(), 2), 0) << "a binary reference";
}

TEST(Hostile, EveryCutAndEveryHeaderByte) {
    TempDir dir;
    for (const bool level7 : {false, true}) {
        Layout layout{
            0x03, {{"A", 'C', 5}, {"B", 'N', 6, 2}, {"T", 'T', 8}, {"M", 'M', 10}}, {}, level7};
        layout.records.assign(3, " hello  1.50" + std::string(8, 1) + "         1");
        const std::string bytes = layout.bytes();
        std::vector<std::string> damaged;
        for (std::size_t i = 0; i < bytes.size(); ++i) damaged.push_back(bytes.substr(0, i));
        for (std::size_t i = 0; i < 4 * layout.headerLength(); ++i) {
            damaged.push_back(bytes);
            damaged.back()[i / 4] = "\xFF\rC"[i % 4];  // or the zero byte behind them
        }
        for (const std::string& table : damaged) {
            const Table h = openBytes(dir, table);
            for (u32 r = 0; h && r < std::min(reccount(h.get()), 20u); ++r) {
                ReadRecord(h.get(), r);
                for (int f = 0; f < h->FieldCount; ++f) {
                    GetStr(h.get(), f);
                    GetValue(h.get(), f);
                }
            }
        }
    }
}

TEST(Hostile, DescriptorListsWithoutEnd) {
    TempDir dir;
    Layout layout{0x03, std::vector<Column>(2046, {"F", 'L', 1}), {}};
    std::string bytes = layout.bytes();
    for (int i = 0; i < 50; ++i) bytes += bytes.substr(32, 32);
    bytes.erase(32 + 32 * 2046, 1);  // the terminator
    bytes.replace(8, 2, le(65535, 2));
    EXPECT_EQ(openBytes(dir, bytes)->FieldCount, 2047);
    bytes.replace(8, 2, le(32 + 64 + 1, 2));
    EXPECT_EQ(openBytes(dir, bytes)->FieldCount, 4) << "ends behind the header length";

    // A record beyond 65535 bytes does not fit the record buffer.
    layout = {0x03, {{"A", 'C', 255, 255}, {"B", 'C', 1}}, {}};
    EXPECT_FALSE(openLayout(dir, layout));
    layout.columns[0].length = 253;
    EXPECT_EQ(openLayout(dir, layout)->Header.RecordLength, 65535);
}

TEST(Hostile, NoTables) {
    TempDir dir;
    EXPECT_FALSE(OpenBase(dir.file("missing.dbf").c_str()));
    EXPECT_FALSE(OpenBase(nullptr));
    EXPECT_FALSE(openBytes(dir, ""));
    CloseBase(nullptr);

    // Counted, but beyond what 31 bits reach.
    writeAll(dir.file("t.dbf"), kOneField.bytes());
    std::filesystem::resize_file(dir.file("t.dbf"), (std::uintmax_t{1} << 31) + 4096);
    const Table h(OpenBase(dir.file("t.dbf").c_str()));
    EXPECT_EQ(reccount(h.get()), ((1u << 31) + 4096 - 65) / 6);
    EXPECT_TRUE(ReadRecord(h.get(), 1));
    EXPECT_FALSE(ReadRecord(h.get(), reccount(h.get()) - 1));
}

}  // namespace
