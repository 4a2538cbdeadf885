// Memo files: names, layouts, appending, reading what others have written, and hostile files.
#include "support.h"

namespace {

using namespace mira;
using namespace test;

/// A string from malloc, released.
std::string take(char* text) {
    const std::unique_ptr<char, decltype(&std::free)> owner(text, std::free);
    return str(text);
}

/// A table of one record, whose memo is in block 1.
Table openTable(const TempDir& dir, u32 version) {
    return openLayout(dir, {static_cast<u8>(version), {{"NOTE", 'M', 10}}, {padded("", 10) + '1'}});
}

// The formats once more, as the tests know them: kind 0 dBase III, 2 dBase IV, 3 FoxPro, 4 SMT.
std::string number(u32 kind, std::uint64_t value, int size) {
    const std::string bytes = le(value, size);
    return kind == 3 ? std::string(bytes.rbegin(), bytes.rend()) : bytes;
}

std::string header(u32 kind, u32 next, u32 unit) {
    const std::string units[] = {"", "", std::string(14, 0) + "\2\1" + le(unit, 2),
                                 "\0\0"s + number(3, unit, 2), le(unit, 2) + "SIxMemo"};
    return number(kind, next, 4) + units[kind];
}

std::string block(u32 kind, const std::string& data) {
    const std::string starts[] = {"", "", "\xFF\xFF\x08\0"s + le(data.size() + 8, 4),
                                  "\0\0\0\1"s + number(3, data.size(), 4), ""};
    return starts[kind] + data + (kind == 0 ? "\x1A" : "");
}

TEST(Memo, AppendsAndReadsBackEverySize) {
    const std::tuple<u32, char* (*)(DbfBase*, u32, u32*), u32 (*)(DbfBase*, const char*, u32)>
        formats[] = {{0, [](DbfBase* h, u32 at, u32*) { return Get_dBase3(h, at); }, Set_dBase3Buf},
                     {2, Get_dBase4Buf, Set_dBase4Buf},
                     {3, Get_FoxProBuf, Set_FoxProBuf},
                     {4, Get_SMTBuf, Set_SMTBuf}};
    const TempDir dir;
    const Table h = openTable(dir, 0x03);
    for (const auto& [kind, get, set] : formats) {
        for (const u32 blockSize : {0u, 1u, 100u, 65535u}) {
            const u32 unit = kind == 0 || blockSize == 0 ? 512 : blockSize;
            u32 next = kind == 0 ? 1 : std::max(512u, blockSize) / unit;
            std::string expected = padded(header(kind, next, unit), std::max(512u, blockSize), 0);
            const std::string path = take(GetMemoName(h->FileName, kind));
            ASSERT_EQ(CreateMemoFile(h->FileName, kind, blockSize), 1);
            h->MemoFile = Open_File(path.c_str());
            for (u32 length : {1u, 92u, 100u, 511u, 512u, 4088u, 4097u, 65000u}) {
                const std::string data = repeat("0123456789X", 6000).substr(0, length);
                const std::string written = block(kind, data);
                const std::size_t place = std::size_t{unit} * next;
                EXPECT_EQ(set(h.get(), data.data(), length), next);
                EXPECT_EQ(SeekMemo(h.get(), unit, 0), 1);
                EXPECT_TRUE(take(get(h.get(), next, &length)) == data) << length;
                EXPECT_EQ(SeekMemoZero(h.get()), 1);
                next += static_cast<u32>((written.size() + unit - 1) / unit);
                expected.resize(std::max(expected.size(), place + written.size()), 0);
                expected.replace(place, written.size(), written);
                expected.replace(0, 4, number(kind, next, 4));
                ASSERT_TRUE(readAll(path) == expected) << kind << ' ' << unit << ' ' << length;
            }
            std::fclose(std::exchange(h->MemoFile, nullptr));
        }
    }
}

TEST(Memo, KindSelectsNameAndFormat) {
    for (const auto& [path, name] :
         rows("0a/test.dbf=a/test.dbt;1SALES.DBF=SALES.fpt;3b.dbc=b.dct;1X.DBC=X.dct;5t.dbf=t.dbv;"
              "4notes=notes.smt;2a.b/notes=a.b/notes.dbt")) {
        EXPECT_EQ(take(GetMemoName(path.c_str() + 1, static_cast<u32>(path[0] - '0'))), name);
    }
    EXPECT_EQ(take(GetMemoName(padded("", 300, 'x').c_str(), 7)), padded("", 300, 'x') + ".dbt");
    const TempDir dir;
    for (const char* name : {"T.FPT", "T.fpt"}) writeAll(dir.file(name), "");
    EXPECT_EQ(openTable(dir, 0xF5)->MemoFileName, dir.file("t.fpt")) << "two others are there";
    const u32 cases[][3] = {{0x03, 0, 512}, {0x04, 2, 20}, {0x8C, 7, 20}, {0x31, 3, 6},
                            {0x32, 3, 6},   {0x05, 1, 6},  {0xE5, 4, 4},  {0xFB, 0, 0}};
    for (const auto& [version, kind, unit] : cases) {
        const Table h = openTable(dir, version);
        // Each format finds the offset of its unit.
        writeAll(h->MemoFileName, "\0\0\0\0\4\0\0\6\0\0\0\0\0\0\0\0\0\0\0\0\x14\0\0\0"s);
        EXPECT_EQ(GetMemoType(h.get()), kind) << version;
        EXPECT_EQ(GetBlockSize(h.get()), unit) << version;
    }
}

TEST(Memo, SourcesHaveMemosUnderTheirOwnExtension) {
    for (const auto& [files, name] : rows("f.scx f.sct=f.sct;F.FRX F.FRT=F.FRT;f.VcX f.Vct=f.Vct;"
                                          "f.lbx f.LBT f.lbT=f.fpt;f.mnx f.mnt F.fpT=F.fpT;"
                                          "f.pjx f.pjt f.Fpt F.fpt=f.fpt;f.dbf f.dbt=f.fpt")) {
        const TempDir dir;
        const std::vector<std::string> all = split(files, ' ');
        for (const std::string& file : all) writeAll(dir.file(file), "");
        const Table h = openLayout(dir, {0x30, {{"NOTE", 'M', 4}}, {}}, all[0]);
        EXPECT_EQ(h->MemoFileName, dir.file(name)) << files;
    }
}

TEST(Memo, HostileFilesAreReadInPartAndNotWritten) {
    const std::string d4 = padded(header(2, 0, 32), 32, 0) + "\xFF\xFF\x08\0"s;
    const std::tuple<u32, std::string, std::string> cases[] = {
        {0x83, padded("", 512, 0) + "ab\0c"s, "ab"},
        {0x8B, std::string(23, 1), "(null)"},
        {0x8B, d4 + "\x08\0\0\0abcd"s, ""},
        {0x8B, d4 + "\xFF\xFF\xFF\xFFtext"s, "text"},
        {0xF5, header(3, 0, 0), ""},
        {0xF5, header(3, 0x2000000, 64), "(null)"},
        {0xFB, header(0, 1, 0), "(null)"}};
    const TempDir dir;
    for (const auto& [version, file, memo] : cases) {
        const Table h = openTable(dir, version);
        ReadRecord(h.get(), 0);
        writeAll(h->MemoFileName, file);
        EXPECT_EQ(memoOf(h.get()).value_or("(null)"), memo) << file;
        EXPECT_EQ(take(GetMemo(h.get(), 0)), memo);
        EXPECT_EQ(SetMemo(h.get(), 0, "text") + SetMemo(h.get(), 1, "text"), 0);
        EXPECT_EQ(readAll(h->MemoFileName) + recordOf(h.get()), file + padded("", 10) + '1');
    }
}

TEST(Memo, EveryReadReleasesTheLastText) {
    const TempDir dir;
    const Table h = openTable(dir, 0x83);
    for (const i32 field : {0, 1}) {  // no memo file, no field
        for (const bool text : {true, false}) {
            h->MemoBuffer = strdup("last");
            EXPECT_EQ(text ? GetMemo(h.get(), field) : GetMemoBuf(h.get(), field, nullptr),
                      nullptr);
            EXPECT_EQ(h->MemoBuffer, nullptr);
        }
    }
}

}  // namespace
