// Memo files: names, layouts, appending, reading what others have written, and hostile files.
#include <cstring>
#include <utility>

#include "support.h"

namespace {

using namespace mira;
using namespace test;

/// A string from malloc, released.
std::string take(char* text) {
    const std::unique_ptr<char, decltype(&std::free)> owner(text, std::free);
    return str(text);
}

std::string memoBytes(DbfBase* h, int field = 0) {
    u32 length = 0;
    char* memo = GetMemoBuf(h, field, &length);
    const std::string bytes = memo == nullptr ? "(null)" : std::string(memo, length);
    std::free(memo);
    return bytes;
}

/// A table of one record with one memo field.
Table openTable(const TempDir& dir, u32 version, const std::string& reference = std::string(10, 0),
                const std::string& name = "t.dbf") {
    const auto length = static_cast<unsigned>(reference.size());
    const Layout layout{static_cast<u8>(version), {{"NOTE", 'M', length}}, {' ' + reference}};
    Table h = openLayout(dir, layout, name);
    ReadRecord(h.get(), 0);
    return h;
}

// The formats once more, as the tests know them: kind 0 dBase III, 2 dBase IV, 3 FoxPro, 4 SMT.
std::string number(u32 kind, std::uint64_t value, int size) {
    std::string bytes = le(value, size);
    if (kind == 3) bytes = {bytes.rbegin(), bytes.rend()};
    return bytes;
}

std::string header(u32 kind, u32 next, u32 unit) {
    const std::string units[] = {"", "", std::string(14, 0) + "\2\1"s + le(unit, 2),
                                 "\0\0"s + number(3, unit, 2), le(unit, 2) + "SIxMemo"};
    return number(kind, next, 4) + units[kind];
}

std::string block(u32 kind, const std::string& data) {
    const std::string starts[] = {"", "", "\xFF\xFF\x08\0"s + le(data.size() + 8, 4),
                                  "\0\0\0\1"s + number(3, data.size(), 4), ""};
    return starts[kind] + data + (kind == 0 ? "\x1A" : "");
}

std::string reference(u32 kind, u32 at, std::size_t length) {
    if (kind == 3) return le(at, 4);
    if (kind == 4) return "\0\0"s + le(length, 4) + le(at, 4);
    return std::string(10 - std::to_string(at).size(), ' ') + std::to_string(at);
}

TEST(Memo, AppendsAndReadsBackEverySize) {
    constexpr struct {
        u32 kind, version;
        char* (*get)(DbfBase*, u32);
        u32 (*set)(DbfBase*, const char*);
        u32 (*unit)(DbfBase*);
    } formats[] = {{0, 0x83, Get_dBase3, Set_dBase3, GetBlockSize},
                   {2, 0x8B, Get_dBase4, Set_dBase4, dBase4_BlockSize},
                   {3, 0x30, Get_FoxPro, Set_FoxPro, FoxPro_BlockSize},
                   {4, 0xE5, Get_SMT, Set_SMT, SMT_BlockSize}};
    for (const auto& [kind, version, get, set, unitOf] : formats) {
        for (const u32 blockSize : {0u, 1u, 32u, 64u, 100u, 33000u, 65535u}) {
            SCOPED_TRACE(testing::Message() << kind << ", " << blockSize);
            const TempDir dir;
            const Table h = openTable(dir, version, std::string(kind == 3 ? 4 : 10, 0));
            ASSERT_EQ(CreateMemoFile(h->FileName, kind, blockSize), 1);
            EXPECT_EQ(CreateMemoFile(h->FileName, kind, 65536), 0);
            const u32 unit = kind == 0 || blockSize == 0 ? 512 : blockSize;
            const u32 start = std::max(512u, blockSize);
            u32 next = kind == 0 ? 1 : start / unit;
            std::string expected = padded(header(kind, next, unit), start, 0);
            EXPECT_EQ(readAll(h->MemoFileName), expected);
            EXPECT_EQ(SetMemoBuf(h.get(), 0, "x", 0) + SetMemo(h.get(), 0, ""), 0);
            for (const u32 size : {1u, unit - 8, unit, unit + 1, 4088u, 4097u, 3u << 20}) {
                if (size == 0 || size > 4u << 20 || (size == 3u << 20 && blockSize > 32)) continue;
                std::string data;
                for (u32 i = 0; i < size; ++i) data += static_cast<char>('a' + i * 7 + i / 251);
                for (char& c : data) c = kind == 0 && (c == 0 || c == 0x1A) ? '.' : c;
                ASSERT_EQ(SetMemoBuf(h.get(), 0, data.data(), size), 1);
                const std::string written = block(kind, data), to = reference(kind, next, size);
                EXPECT_EQ(std::memcmp(h->RecordBuffer + 1, to.data(), to.size()), 0);
                const std::size_t place = std::size_t{unit} * next;
                expected.resize(std::max(expected.size(), place + written.size()), 0);
                expected.replace(place, written.size(), written);
                next += static_cast<u32>((written.size() + unit - 1) / unit);
                expected.replace(0, 4, number(kind, next, 4));
                ASSERT_TRUE(readAll(h->MemoFileName) == expected) << size;
                EXPECT_TRUE(memoBytes(h.get()) == data.substr(0, kind == 0 ? 65535 : size));
                EXPECT_STREQ(take(GetMemo(h.get(), 0)).substr(0, 99).c_str(),
                             kind == 4 ? "(null)" : data.substr(0, 99).c_str());
            }
            EXPECT_EQ(GetBlockSize(h.get()), unit);
            ASSERT_EQ(h->MemoFile, nullptr);
            h->MemoFile = Open_File(h->MemoFileName);
            EXPECT_EQ(set(h.get(), "text"), next);
            EXPECT_EQ(SeekMemoZero(h.get()), 1);
            EXPECT_EQ(take(get(h.get(), next)), kind == 4 ? "(null)" : "text");
            EXPECT_EQ(SeekMemoZero(h.get()), 1);
            EXPECT_EQ(SeekMemo(h.get(), 65536, 32768), 0) << "2^31";
            std::FILE* file = h->MemoFile;
            EXPECT_EQ(unitOf(h.get()), unit);
            h->MemoFile = nullptr;
            std::fclose(file);
        }
    }
}

TEST(Memo, NamesFollowPathKindAndLetterCase) {
    const std::string longDir = "d." + std::string(300, 'x') + "/";
    for (const auto& row : {"0 a/test.dbf a/test.dbt"s, "1 SALES.DBF SALES.fpt"s, "3 b.dbc b.dct"s,
                            "1 X.DBC X.dct"s, "4 notes notes.smt"s, "2 a.b/notes a.b/notes.dbt"s,
                            "5 t.dbf t.dbv"s, "7 " + longDir + "t " + longDir + "t.dbt"}) {
        const auto parts = split(row, ' ');
        EXPECT_EQ(take(GetMemoName(parts[1].c_str(), static_cast<u32>(row[0] - '0'))), parts[2]);
    }
    const TempDir dir;
    for (const auto* names : {"CUSTOMER.FPT CUSTOMER.FPT", "Customer.Fpt customer.fpt"}) {
        writeAll(dir.file(split(names, ' ')[0]), "");  // with the second, two candidates: none
        const Table h = openTable(dir, 0xF5, std::string(10, ' '), "customer.dbf");
        EXPECT_EQ(h->MemoFileName, dir.file(split(names, ' ')[1]));
    }
}

TEST(Memo, VersionSelectsKindAndFormat) {
    const u32 cases[][3] = {{0x03, 0, 512}, {0x83, 0, 512}, {0x04, 2, 20}, {0x8B, 2, 20},
                            {0x8C, 7, 20},  {0x30, 3, 6},   {0x31, 3, 6},  {0x32, 3, 6},
                            {0xF5, 1, 6},   {0x05, 1, 6},   {0xE5, 4, 4},  {0xFB, 0, 0}};
    const std::string places = "\0\0\0\0\x04\0\0\x06\0\0\0\0\0\0\0\0\0\0\0\0\x14\0\0\0"s;
    for (const auto& [version, kind, unit] : cases) {
        const TempDir dir;
        const Table h = openTable(dir, version);
        EXPECT_EQ(GetMemoType(h.get()), kind) << version;
        EXPECT_EQ(GetBlockSize(h.get()), 0u) << "no memo file yet";
        writeAll(h->MemoFileName, places);  // each format finds the offset of its unit
        EXPECT_EQ(GetBlockSize(h.get()), unit) << version;
        writeAll(h->MemoFileName, places.substr(0, 7));
        EXPECT_EQ(GetBlockSize(h.get()), unit == 0 || unit == 512 ? unit : 256);
        h->HeaderSize = 68;
        EXPECT_EQ(GetMemoType(h.get()), 7u);
    }
}

TEST(Memo, ReadsNoMoreThanTheFileHolds) {
    const std::string d3(512, 0), d4 = padded(header(2, 2, 32), 32, 0), none = "(null)",
                                  fp = padded(header(3, 2, 32), 32, 0),
                                  smt = padded(header(4, 2, 32), 32, 0);
    const std::string one = "         1", mark = "\xFF\xFF\x08\0"s;
    const std::tuple<u32, std::string, std::string, std::string> cases[] = {
        {0x83, one, d3 + "abc\x1A more", "abc"},
        {0x83, one, d3 + "ab\0c"s, "ab"},
        {0x83, "         9", d3, ""},
        {0x83, "0000000000", d3, none},
        {0x83, "   4194304", d3, none},
        {0x8B, "        -1", d4, none},
        {0x8B, "9999999999", d4, none},
        {0x8B, one, d4.substr(0, 23), none},
        {0x8B, one, d4 + mark + "\x08\0\0\0abcd"s, ""},
        {0x8B, one, d4 + mark + "\x07\0\0\0abcd"s, none},
        {0x8B, one, d4 + "\xFF\xFF\x08\1\x0B\0\0\0abcd"s, none},
        {0x8B, one,
         d4 + mark +
             "\xFF\xFF\xFF\xFF"
             "abcd",
         "abcd"},
        {0xF5, one, fp + "\0\0\0\0\0\0\0\3abcd"s, "abc"},
        {0xF5, one, fp + "\0\0\1\1\0\0\0\3abcd"s, none},
        {0xF5, one, fp + "\0\0\0\1\x7F\xFF\xFF\xFF"s + std::string(9000, 'y'),
         std::string(9000, 'y')},
        {0xF5, one, fp + "\0\0\0\1\0\0\0"s, none},
        {0xE5, reference(4, 1, 0xFFFFFFFF), smt + "abcd", "abcd"},
        {0xE5, reference(4, 0, 0), smt, ""},
        {0xE5, reference(4, 0x7FFFFFFF, 3), smt, none},
        {0xE5, reference(4, 1, 3), smt.substr(0, 15), ""},
        {0xFB, one, d3, none}};
    for (const auto& [version, from, file, bytes] : cases) {
        SCOPED_TRACE(testing::Message() << version << ' ' << from << ' ' << bytes.substr(0, 9));
        const TempDir dir;
        const Table h = openTable(dir, version, from);
        EXPECT_EQ(memoBytes(h.get()), none) << "no memo file";
        writeAll(h->MemoFileName, file);
        EXPECT_EQ(memoBytes(h.get()), bytes);
        EXPECT_EQ(take(GetMemo(h.get(), 0)), version == 0xE5 ? none : bytes);
        EXPECT_EQ(memoBytes(h.get(), 1) + memoBytes(h.get(), -1), none + none);
    }
}

TEST(Memo, WriterRefusesWhatWouldDoHarm) {
    const std::pair<u32, std::string> cases[] = {
        {0xF5, header(3, 1, 0)},    {0xF5, header(3, 0, 64)},  {0xF5, header(3, 0x2000000, 64)},
        {0x8B, std::string(23, 1)}, {0xE5, header(4, 1, 512)},  // no room for ten bytes
        {0xFB, header(0, 1, 0)}};
    for (const auto& [version, bytes] : cases) {
        const TempDir dir;
        const Table h = openTable(dir, version, std::string(9, '#'));
        EXPECT_EQ(SetMemo(h.get(), 0, "text"), 0) << "no memo file";
        writeAll(h->MemoFileName, bytes);
        EXPECT_EQ(SetMemo(h.get(), 0, "text") + SetMemo(h.get(), 1, "text"), 0) << bytes;
        EXPECT_EQ(readAll(h->MemoFileName), bytes);
        EXPECT_EQ(h->RecordBuffer[9], '#');
    }
}

}  // namespace
