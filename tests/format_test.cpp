// Header and descriptors: what opens, what is repaired, what is refused.
#include <cstring>

#include "support.h"

using namespace mira;
using namespace test;

namespace {

Layout oneField(unsigned char version = 0x03) {
    return {version, {{"NAME", 'C', 5}}, {" Anna ", "*Berta"}};
}

TEST(Format, ReadsHeaderAndDescriptors) {
    TempDir dir;
    Layout layout{0x31, {{"ID", 'I', 4}, {"LONGNAME12", 'C', 44, 1}, {"PRICE", 'N', 10, 2}}, {}};
    layout.records = {" " + le(7, 4) + padded("x", 300) + "      1.50"};
    const Table h = openLayout(dir, layout);
    ASSERT_TRUE(h);
    EXPECT_EQ(h->Status, 0u);
    EXPECT_EQ(h->Level7, 0u);
    EXPECT_EQ(h->FieldCount, 3);
    EXPECT_STREQ(h->Fields[1].Name, "LONGNAME12");
    EXPECT_EQ(GetLenField(h.get(), 1), 300u);
    EXPECT_EQ(GetHighLen(h.get(), 1), 44u);
    EXPECT_EQ(h->Fields[0].Offset, 1);
    EXPECT_EQ(h->Fields[2].Offset, 305);
    EXPECT_EQ(h->Header.RecordLength, 315);
    EXPECT_EQ(h->FirstMemoField, -1);
    EXPECT_EQ(fieldno(h.get(), 2), 2);
    EXPECT_EQ(fieldno(h.get(), 3), -1);
    EXPECT_EQ(fieldno(h.get(), -1), -1);
    EXPECT_EQ(h->BackupName, dir.file("t.bak"));
    EXPECT_EQ(h->RecordBuffer[0], ' ');
}

TEST(Format, RepairsVersion) {
    TempDir dir;
    for (int version = 0; version < 256; ++version) {
        const bool known = std::strchr(
                               "\x02\x03\x04\x30\x31\x43\x63\x83\x8B\x8C\xCB\xF5\xFB\xE5\x32\x42"
                               "\x62\x82\x8A\xCA\xF4\xFA",
                               version) != nullptr &&
                           version != 0;
        Layout layout = oneField(static_cast<unsigned char>(version));
        Table h = openLayout(dir, layout);
        ASSERT_TRUE(h) << version;
        EXPECT_EQ(h->Status, known ? 0u : 1u) << version;
        EXPECT_EQ(h->Header.Version, known ? version : 0x03) << version;
    }
    Layout memo{0x05, {{"TEXT", 'M', 10}}, {}};
    const Table h = openLayout(dir, memo);
    EXPECT_EQ(h->Header.Version, 0xF5);
    EXPECT_EQ(h->FirstMemoField, 0);
}

TEST(Format, RepairsRecordCountAndLength) {
    TempDir dir;
    std::string bytes = oneField().bytes();
    bytes[4] = 77;
    bytes[10] = 99;
    writeAll(dir.file("t.dbf"), bytes);
    const Table h(OpenBase(dir.file("t.dbf").c_str()));
    EXPECT_EQ(h->Status, 4u);
    EXPECT_EQ(reccount(h.get()), 2u);
    EXPECT_EQ(h->Header.RecordLength, 6);
}

TEST(Format, TellsStrayDecimalsFromHighLengthBytes) {
    TempDir dir;
    Layout layout{0x03, {{"A", 'C', 16, 1}}, {}};
    EXPECT_EQ(GetLenField(openLayout(dir, layout).get(), 0), 272u);
    std::string bytes = layout.bytes();
    bytes[10] = 17;  // the record length says that the decimal byte is no length
    bytes[11] = 0;
    writeAll(dir.file("t.dbf"), bytes);
    const Table h(OpenBase(dir.file("t.dbf").c_str()));
    EXPECT_EQ(h->HighLength, 1u);
    EXPECT_EQ(GetLenField(h.get(), 0), 16u);
    EXPECT_EQ(h->Fields[0].Decimals, 0);
}

TEST(Format, CountsInvalidTypeLetters) {
    TempDir dir;
    Layout layout{0x03, {{"A", 'C', 2}, {"B", 'P', 2}}, {" aabb"}};
    Table h = openLayout(dir, layout);
    ASSERT_TRUE(h);
    EXPECT_EQ(h->Status, 2u);
    layout.columns.push_back({"C", 'X', 1});
    EXPECT_FALSE(openLayout(dir, layout));
}

TEST(Format, ReadsLevel7) {
    TempDir dir;
    Layout layout{0x8C, {{"A_NAME_OF_THIRTY_ONE_CHARACTERS", 'C', 3}, {"N", 'I', 4}}, {}, true};
    layout.records = {" abc\x80\x00\x00\x05"s};
    Table h = openLayout(dir, layout);
    ASSERT_TRUE(h);
    EXPECT_EQ(h->Level7, 1u);
    EXPECT_STREQ(h->Fields[0].Name, "A_NAME_OF_THIRTY_ONE_CHARACTERS");
    ASSERT_TRUE(ReadRecord(h.get(), 0));
    EXPECT_EQ(GetInt(h.get(), 1), 5u);
    SetInt(h.get(), 1, 0xFFFFFFFF);
    EXPECT_EQ(std::memcmp(h->RecordBuffer + 4, "\x7F\xFF\xFF\xFF", 4), 0);

    // Other makers keep the length one byte earlier; only a matching record length says so.
    std::string bytes = layout.bytes();
    for (std::size_t place : {68u, 68u + 48u}) {
        bytes[place + 33] = bytes[place + 34];
        bytes[place + 34] = bytes[place + 35];
    }
    writeAll(dir.file("t.dbf"), bytes);
    h.reset(OpenBase(dir.file("t.dbf").c_str()));
    ASSERT_TRUE(h);
    EXPECT_EQ(h->ForeignLevel7, 1u);
    EXPECT_EQ(GetLenField(h.get(), 0), 3u);
    ASSERT_TRUE(ReadRecord(h.get(), 0));
    EXPECT_STREQ(GetStr(h.get(), 1), "         5");
    SetInt(h.get(), 1, static_cast<u32>(-1));
    EXPECT_EQ(std::memcmp(h->RecordBuffer + 4, "\x7F\xFF\xFF\xFF", 4), 0);
    EXPECT_EQ(GetValue(h.get(), 1), -1.0);
}

TEST(Format, BlanksEveryType) {
    TempDir dir;
    const std::string spaces = "CNFDLV", zeros = "IY+0OQWX";
    Layout layout{0x03, {}, {}};
    for (char type : spaces + zeros) layout.columns.push_back({"F", type, 2});
    layout.columns.insert(layout.columns.end(), {{"T14", 'T', 14},
                                                 {"T8", 'T', 8},
                                                 {"B8", 'B', 8},
                                                 {"B10", 'B', 10},
                                                 {"M10", 'M', 10},
                                                 {"M4", 'M', 4}});
    const Table h = openLayout(dir, layout);
    std::memset(h->RecordBuffer, 'x', 65535);
    ClearRecord(h.get());
    const std::string expected =
        " " + std::string(2 * spaces.size(), ' ') + std::string(2 * zeros.size(), 0) +
        std::string(14, ' ') + std::string(16, 0) + std::string(20, ' ') + std::string(4, 0) + "x";
    EXPECT_EQ(std::string(reinterpret_cast<char*>(h->RecordBuffer), expected.size()), expected);
    h->Header.Version = 0xE5;
    EXPECT_EQ(FieldBlankChar(h.get(), static_cast<int>(layout.columns.size()) - 2), 0);
}

// Cuts, lies and repetitions: each opens repaired or not at all, and every record can be read.
void openAndReadAll(const std::string& path) {
    const Table h(OpenBase(path.c_str()));
    if (!h) return;
    for (u32 r = 0; r < std::min(reccount(h.get()), 20u); ++r) {
        ReadRecord(h.get(), r);
        for (int f = 0; f < h->FieldCount; ++f) {
            GetStr(h.get(), f);
            GetValue(h.get(), f);
        }
    }
}

TEST(Hostile, EveryCutAndEveryHeaderByte) {
    TempDir dir;
    const std::string path = dir.file("t.dbf");
    for (const bool level7 : {false, true}) {
        Layout layout{
            0x03, {{"A", 'C', 5}, {"B", 'N', 6, 2}, {"T", 'T', 8}, {"M", 'M', 10}}, {}, level7};
        layout.records.assign(3, " hello  1.50" + std::string(8, 1) + "         1");
        const std::string bytes = layout.bytes();
        for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
            writeAll(path, bytes.substr(0, cut));
            openAndReadAll(path);
        }
        for (std::size_t place = 0; place < layout.headerLength(); ++place) {
            for (const char value : {'\0', '\xFF', '\x0D', 'C'}) {
                std::string damaged = bytes;
                damaged[place] = value;
                writeAll(path, damaged);
                openAndReadAll(path);
            }
        }
    }
}

TEST(Hostile, DescriptorListsWithoutEnd) {
    TempDir dir;
    const std::string path = dir.file("t.dbf");
    std::string descriptor = padded("F", 11, 0) + "L";
    descriptor.resize(32, 0);
    descriptor[16] = 1;
    std::string bytes = "\x03\x1A\x01\x01"s + le(0, 4) + le(65535, 2) + le(0, 2);
    bytes.resize(32, 0);
    for (int i = 0; i < 2100; ++i) bytes += descriptor;
    writeAll(path, bytes);
    Table h(OpenBase(path.c_str()));
    ASSERT_TRUE(h);
    EXPECT_EQ(h->FieldCount, 2047);
    openAndReadAll(path);

    // Without a terminator the list ends behind the header length.
    bytes[8] = static_cast<char>(32 + 64 + 1);
    bytes[9] = 0;
    writeAll(path, bytes);
    h.reset(OpenBase(path.c_str()));
    EXPECT_EQ(h->FieldCount, 4);

    // A record beyond 65535 bytes does not fit the record buffer.
    Layout wide{0x03, {{"A", 'C', 255, 255}, {"B", 'C', 1}}, {}};
    EXPECT_FALSE(openLayout(dir, wide));
    wide.columns[0].length = 253;
    h = openLayout(dir, wide);
    ASSERT_TRUE(h);
    EXPECT_EQ(h->Header.RecordLength, 65535);
}

TEST(Hostile, NoTables) {
    TempDir dir;
    EXPECT_EQ(OpenBase(dir.file("missing.dbf").c_str()), nullptr);
    EXPECT_EQ(OpenBase(dir.file("").c_str()), nullptr);
    EXPECT_EQ(OpenBase(nullptr), nullptr);
    writeAll(dir.file("empty.dbf"), "");
    EXPECT_EQ(OpenBase(dir.file("empty.dbf").c_str()), nullptr);
    CloseBase(nullptr);
}

TEST(Hostile, SparseFileBeyondReach) {
    TempDir dir;
    const std::string path = dir.file("t.dbf");
    writeAll(path, oneField().bytes());
    std::filesystem::resize_file(path, (std::uintmax_t{1} << 31) + 4096);
    const Table h(OpenBase(path.c_str()));
    ASSERT_TRUE(h);
    EXPECT_EQ(reccount(h.get()), ((1u << 31) + 4096 - 65) / 6);
    EXPECT_TRUE(ReadRecord(h.get(), 1));
    EXPECT_FALSE(ReadRecord(h.get(), reccount(h.get()) - 1));
}

}  // namespace
