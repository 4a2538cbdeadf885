// Memo files: names, layouts, appending, and hostile files.
#include "cases.h"

namespace test {
namespace {

/// A string from malloc, released.
std::string take(char* text) {
    const std::unique_ptr<char, decltype(&std::free)> owner(text, std::free);
    return str(text);
}

/// A table of one record, whose memo is in block 1.
Table openTable(const Folder& folder, u32 version) {
    return openLayout(folder,
                      {static_cast<u8>(version), {{"NOTE", 'M', 10}}, {padded("", 10) + '1'}});
}

// The formats once more, as the tests know them: kind 0 dBase III, 2 dBase IV, 3 FoxPro, 4 SMT.
std::string number(u32 kind, u64 value, unsigned size) {
    return kind == 3 ? be(value, size) : le(value, size);
}

std::string header(u32 kind, u32 next, u32 unit, std::size_t size) {
    const std::string units[] = {"", "", std::string(14, 0) + "\2\1" + le(unit, 2),
                                 "\0\0"s + be(unit, 2), le(unit, 2) + "SIxMemo"};
    return padded(number(kind, next, 4) + units[kind], size, 0);
}

std::string block(u32 kind, const std::string& data) {
    const std::string starts[] = {"", "", "\xFF\xFF\x08\0"s + le(data.size() + 8, 4),
                                  "\0\0\0\1"s + be(data.size(), 4), ""};
    return starts[kind] + data + (kind == 0 ? "\x1A" : "");
}

struct Format {
    u32 kind;
    char* (*get)(DbfBase*, u32);
    char* (*getBytes)(DbfBase*, u32, u32*);
    u32 (*set)(DbfBase*, const char*);
    u32 (*setBytes)(DbfBase*, const char*, u32);
    u32 (*blockSize)(DbfBase*);
};
const Format kFormats[] = {
    {0, Get_dBase3, nullptr, Set_dBase3, Set_dBase3Buf, nullptr},
    {2, Get_dBase4, Get_dBase4Buf, Set_dBase4, Set_dBase4Buf, dBase4_BlockSize},
    {3, Get_FoxPro, Get_FoxProBuf, Set_FoxPro, Set_FoxProBuf, FoxPro_BlockSize},
    {4, Get_SMT, Get_SMTBuf, Set_SMT, Set_SMTBuf, SMT_BlockSize}};

TEST(Memo, AppendsAndReadsBackEverySize) {
    const Folder folder;
    const Table h = openTable(folder, 0x03);
    EXPECT_EQ(GetMemoLayout(0xFFFFFFFF), nullptr);
    for (const Format& f : kFormats) {
        const MemoLayout& layout = *GetMemoLayout(f.kind);
        EXPECT_EQ(layout.prefixSize + layout.endSize, block(f.kind, "").size());
        for (const u32 blockSize : {0u, 1u, 100u, 65535u}) {
            const u32 unit = f.kind == 0 || blockSize == 0 ? 512 : blockSize;
            const std::size_t headerSize = std::max(512u, blockSize);
            u32 next = f.kind == 0 ? 1 : static_cast<u32>(headerSize) / unit;
            std::string expected = header(f.kind, next, unit, headerSize);
            const std::string path = take(GetMemoName(h->FileName, f.kind));
            ASSERT_EQ(CreateMemoFile(h->FileName, f.kind, blockSize), 1);
            h->MemoFile = Open_File(path.c_str());
            EXPECT_EQ(f.blockSize == nullptr ? 512 : f.blockSize(h.get()), unit);
            for (u32 length : {1u, 92u, 100u, 511u, 512u, 4088u, 4097u, 65000u}) {
                const std::string data = repeat("0123456789X", 6000).substr(0, length);
                const std::string written = block(f.kind, data);
                const std::size_t place = std::size_t{unit} * next;
                EXPECT_EQ(SeekMemoZero(h.get()), 1);
                EXPECT_EQ(length % 2 == 0 ? f.set(h.get(), data.c_str())
                                          : f.setBytes(h.get(), data.data(), length),
                          next);
                EXPECT_EQ(SeekMemo(h.get(), unit, 0), 1);
                EXPECT_EQ(take(f.get(h.get(), next)) == data, f.kind != 4);
                EXPECT_EQ(SeekMemoZero(h.get()), 1);
                if (f.getBytes != nullptr) {
                    EXPECT_EQ(take(f.getBytes(h.get(), next, &length)), data);
                }
                EXPECT_EQ(length, data.size());
                next += static_cast<u32>((written.size() + unit - 1) / unit);
                expected.resize(std::max(expected.size(), place + written.size()), 0);
                expected.replace(place, written.size(), written)
                    .replace(0, 4, number(f.kind, next, 4));
                ASSERT_TRUE(readAll(path) == expected) << f.kind << ' ' << unit << ' ' << length;
            }
            std::fclose(std::exchange(h->MemoFile, nullptr));
        }
    }
    EXPECT_EQ(CreateMemoFile(h->FileName, 1, 65536), 0);
}

TEST(Memo, KindSelectsNameAndFormat) {
    const std::tuple<const char*, u32, const char*> names[] = {{"a/test.dbf", 0, "a/test.dbt"},
                                                               {"SALES.DBF", 1, "SALES.fpt"},
                                                               {"b.dbc", 3, "b.dct"},
                                                               {"X.DBC", 1, "X.dct"},
                                                               {"t.dbf", 5, "t.dbv"},
                                                               {"notes", 4, "notes.smt"},
                                                               {"a.b/notes", 2, "a.b/notes.dbt"}};
    for (const auto& [path, kind, name] : names) EXPECT_EQ(take(GetMemoName(path, kind)), name);
    EXPECT_EQ(take(GetMemoName(padded("", 300, 'x').c_str(), 7)), padded("", 300, 'x') + ".dbt");
    const Folder folder;
    for (const char* name : {"T.FPT", "T.fpt"}) writeAll(folder.file(name), "");
    EXPECT_EQ(openTable(folder, 0xF5)->MemoFileName, folder.file("t.fpt"))
        << "two others are there";
    const u32 kinds[][3] = {{0x03, 0, 512}, {0x04, 2, 20}, {0x8C, 7, 20}, {0x31, 3, 6},
                            {0x32, 3, 6},   {0x05, 1, 6},  {0xE5, 4, 4},  {0xFB, 0, 0}};
    for (const auto& [version, kind, unit] : kinds) {
        const Table h = openTable(folder, version);
        // Each format finds the offset of its unit.
        writeAll(h->MemoFileName, "\0\0\0\0\4\0\0\6\0\0\0\0\0\0\0\0\0\0\0\0\x14\0\0\0"s);
        EXPECT_EQ(GetMemoType(h.get()), kind) << version;
        EXPECT_EQ(GetBlockSize(h.get()), unit) << version;
        std::filesystem::remove(h->MemoFileName);
        EXPECT_EQ(GetBlockSize(h.get()), 0u) << "no file";
    }
}

/// How much of the memo file a reference means: whole or cut, first byte and end.
std::string spanOf(DbfBase* h, int field, std::string_view file) {
    u32 block = 0, length = 0;
    u64 first = 0, end = 0;
    EXPECT_EQ(GetMemoReference(h, field, &block, &length), 1);
    const int result = GetMemoSpan(h, block, length, &first, &end);
    EXPECT_EQ(result == 2, end > file.size());
    return std::to_string(result) + " " + std::to_string(first) + " " + std::to_string(end);
}

TEST(Memo, FilesOfOthers) {
    const Folder folder;
    for (const auto& row : cases("memo")) {
        SCOPED_TRACE(row[0] + " " + row[row.size() - 3]);
        const Table h = openTable(folder, static_cast<u32>(std::stoul(row[0], nullptr, 16)));
        std::string file;  // pieces, each with the place up to which zeros fill the file before it
        for (std::size_t i = 1; i + 3 < row.size(); i += 2) {
            file.resize(std::stoul(row[i]));
            file += row[i + 1];
        }

        writeAll(h->MemoFileName, file);
        EXPECT_EQ(ReadRecord(h.get(), 0), 1);
        EXPECT_EQ(memoOf(h.get()).value_or("(null)"), row.back());
        EXPECT_EQ(memo(current(h.get()), 0, file).value_or("(null)"), row.back());
        EXPECT_EQ(spanOf(h.get(), 0, file), row[row.size() - 2]);
        EXPECT_EQ(take(GetMemo(h.get(), 0)), cString(row.back()));
        EXPECT_EQ(SetMemo(h.get(), 0, "text"), 0) << "counter or unit is 0";
        EXPECT_EQ(readAll(h->MemoFileName), file);
        EXPECT_EQ(recordOf(h.get()), padded("", 10) + '1');
    }
}

TEST(Memo, ExactReferences) {
    const Folder folder;
    const struct {
        u8 version;
        Column column;
        std::string bytes;
        int result;
        u32 block, length;
    } rows[] = {{0x83, {"M", 'M', 10}, "        12", 1, 12, 0},
                {0x83, {"M", 'M', 10}, "4294967294", 1, 4294967294, 0},
                {0x83, {"M", 'M', 10}, "12\0       "s, 1, 12, 0},
                {0x83, {"M", 'M', 10}, "          ", 0, 0, 0},
                {0x83, {"M", 'M', 10}, "0000000000", 0, 0, 0},
                {0x83, {"M", 'M', 10}, "       12x", 0, 4294967295, 0},
                {0x83, {"M", 'M', 10}, "        -1", 0, 4294967295, 0},
                {0x83, {"M", 'M', 10}, "9999999999", 0, 4294967295, 0},
                {0xFB, {"B", 'B', 10}, "         7", 1, 7, 0},
                {0x30, {"G", 'G', 4}, le(7, 4), 1, 7, 0},
                {0x30, {"P", 'P', 4}, le(7, 4), 1, 7, 0},
                {0x30, {"W", 'W', 4}, le(0, 4), 0, 0, 0},
                {0x30, {"W", 'W', 7}, "      7", 0, 0, 0},
                {0x30, {"B", 'B', 8}, "       7", 0, 0, 0},
                {0xE5, {"M", 'M', 10}, "\0\0"s + le(70000, 4) + le(3, 4), 1, 3, 70000},
                {0xE5, {"M", 'M', 10}, std::string(10, 0), 0, 0, 0},
                {0xE5, {"M", 'M', 9}, "         ", 0, 4294967295, 0}};
    for (const auto& row : rows) {
        const Table h = openLayout(folder, {row.version, {row.column, {"C", 'C', 9}}});
        setRecord(h.get(), " " + row.bytes + "         ");
        u32 block = 9, length = 9;
        EXPECT_EQ(GetMemoReference(h.get(), 0, &block, &length), row.result) << row.bytes;
        EXPECT_EQ(block, row.block) << row.bytes;
        EXPECT_EQ(length, row.length) << row.bytes;
        EXPECT_EQ(GetMemoReference(h.get(), 1, &block, &length), 0);
        if (row.result == 0) continue;
        setRecord(h.get(), padded("", 30));
        const bool fits = row.block <= 0x7FFFFFFF;
        EXPECT_EQ(SetMemoReference(h.get(), 0, row.block, row.length), fits ? 1 : 0);
        block = GetMemoReference(h.get(), 0, &block, &length) != 0 ? block : 0;
        EXPECT_EQ(block, fits ? row.block : 0) << row.bytes;
        EXPECT_EQ(SetMemoReference(h.get(), 1, 1, 1), 0);
    }
}

TEST(Memo, AClearedReferenceOfAnySizeLeadsNowhere) {
    const Folder folder;
    for (const Flavour flavour : {kPlain, kLevel7, kForeignLevel7}) {
        for (const unsigned size : {4u, 10u}) {
            const Table h = openLayout(
                folder, {0x8C, {{"M", 'M', size}, {"C", 'C', 9}, {"B", 'C', 9}}, {}, flavour});
            u32 block = 9, length = 9;
            for (const u32 wanted : {0u, 5u, 0u}) {
                ClearField(h.get(), 0);
                EXPECT_EQ(wanted == 0 || SetMemoReference(h.get(), 0, wanted, 0) == 1, true);
                EXPECT_EQ(GetMemoReference(h.get(), 0, &block, &length), wanted != 0 ? 1 : 0);
                EXPECT_EQ(block, wanted) << flavour << ' ' << size;
                const char* const told = wanted != 0 ? "Full memo " : "Empty memo";
                EXPECT_STREQ(GetStr(h.get(), 0), told) << flavour << ' ' << size;
                EXPECT_EQ(shown(current(h.get()), 0), told) << flavour << ' ' << size;
            }
        }
    }
}

TEST(Memo, SpansOfLongMemosAndOpenFiles) {
    const Folder folder;
    const std::string data(70000, 'x');
    const std::pair<u8, std::string> files[] = {{0x83, padded("\1", 512, 0) + data + "\x1Azzz"},
                                                {0xE5, padded("\1\0\0\0\0\2"s, 512, 0) + data}};
    for (const auto& [version, file] : files) {
        const Table h = openTable(folder, version);
        writeAll(h->MemoFileName, file);
        const std::unique_ptr<std::FILE, decltype(&std::fclose)> memos(Open_FileRO(h->MemoFileName),
                                                                       std::fclose);
        for (std::FILE* const kept : {memos.get(), static_cast<std::FILE*>(nullptr)}) {
            h->MemoFile = kept;
            u64 first = 0, end = 0;
            EXPECT_EQ(GetMemoSpan(h.get(), 1, 70000, &first, &end), 1);
            EXPECT_EQ(file.substr(first, end - first), data);
            EXPECT_EQ(GetMemoSpan(h.get(), 0, 0, &first, &end), 0);
            EXPECT_EQ(GetMemoSpan(h.get(), 1, 70001, &first, &end), version == 0xE5 ? 2 : 1);
            EXPECT_EQ(GetMemoSpan(h.get(), 0xFFFFFFFF, 1, &first, &end), 0);
            EXPECT_EQ(first + end, 0u);
            EXPECT_EQ(h->MemoFile, kept);
            EXPECT_EQ(GetMemoSpanIn(h.get(), memos.get(), 1, 70000, &first, &end), 1);
            EXPECT_EQ(end - first, data.size());
        }
        std::filesystem::remove(h->MemoFileName);
    }
}

TEST(Memo, ReferencesInTheRecord) {
    const Folder folder;
    const Table h = openLayout(folder, {0x83, {{"M", 'M', 10}, {"B", 'B', 10}, {"W", 'W', 4}}});
    EXPECT_EQ(CreateMemoFile(h->FileName, 0, 0), 1);
    setRecord(h.get(), std::string(25, '#'));
    SetValue(h.get(), 0, "abc", 0);
    SetValue(h.get(), 1, "abc", 1);
    EXPECT_EQ(SetMemoBuf(h.get(), 2, "xyz", 2), 1);
    EXPECT_EQ(SetMemo(h.get(), 0, ""), 0) << "keeps its memo";
    EXPECT_EQ(recordOf(h.get()), "#         1         2\3\0\0\0"s);
    EXPECT_EQ(memoOf(h.get(), 0), "abc");
    EXPECT_EQ(memoOf(h.get(), 1), "a");
    EXPECT_EQ(memoOf(h.get(), 2), "xy");
    h->MemoBuffer = static_cast<char*>(std::malloc(9));
    FreeMemo(h.get());
    EXPECT_EQ(h->MemoBuffer, nullptr);
}

TEST(Memo, SourcesHaveMemosUnderTheirOwnExtension) {
    // The table, what lies beside it, and what is taken for its memo file.
    const std::vector<std::string> folders[] = {
        {"f.scx", "f.sct", "", "f.sct"},      {"F.FRX", "F.FRT", "", "F.FRT"},
        {"f.VcX", "f.Vct", "", "f.Vct"},      {"f.lbx", "f.LBT", "f.lbT", "f.fpt"},
        {"f.mnx", "f.MNT", "f.fpt", "f.MNT"}, {"f.pjx", "F.fpT", "", "F.fpT"},
        {"f.pjx", "f.fpt", "F.DBF", "f.pjt"}, {"f.dbf", "f.dbt", "", "f.fpt"}};
    for (const auto& names : folders) {
        const Folder folder;
        for (const std::string& name : {names[1], names[2]})
            if (!name.empty()) writeAll(folder.file(name), "");
        const Table h = openLayout(folder, {0x30, {{"NOTE", 'M', 4}}}, names[0]);
        EXPECT_EQ(h->MemoFileName, folder.file(names[3])) << names[0];
    }
    const Folder folder;
    DbfField field{"NOTE", 'M', 4, 0, 0, 0};
    writeAll(folder.file("f.fpt"), "a table's");
    EXPECT_EQ(CreateDatabase(folder.file("f.scx").c_str(), &field, 1, 3, 64, 1), 1);
    const Table h(OpenBase(folder.file("f.scx").c_str()));
    EXPECT_EQ(SetMemo(h.get(), 0, "text") + AppendBlank(h.get(), 0) + Pack(h.get(), 0), 3);
    EXPECT_EQ(readAll(folder.file("f.sct")).substr(520), "text");
    EXPECT_EQ(readAll(folder.file("f.fpt")), "a table's");
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
/// A memo file that is not there by its usual name is asked for; the folder is not read.
TEST(MemoName, AskedForInAListedFolder) {
    const Folder folder;
    const std::string path = folder.file("t.dbf");
    openTable(folder, 0xF5);
    std::filesystem::remove(folder.file("t.fpt"));
    writeAll(folder.file("t.FPT"), "");
    const FindNameHook find = [](const char* wanted, char* name, void* context) -> u32 {
        EXPECT_TRUE(std::string_view(wanted).ends_with("/t.fpt"));
        std::string_view("T.fPt").copy(name, 5);
        return *static_cast<u32*>(context);
    };
    for (const auto& [count, expected] : {std::pair(0u, "t.fpt"), {1u, "T.fPt"}, {2u, "t.fpt"}}) {
        u32 context = count;
        const Table table(OpenBaseListed(path.c_str(), 1, find, &context));
        EXPECT_EQ(table->MemoFileName, folder.file(expected));
    }
    EXPECT_EQ(Table(OpenBaseListed(path.c_str(), 1, nullptr, nullptr))->MemoFileName,
              folder.file("t.FPT"));
}

}  // namespace test
