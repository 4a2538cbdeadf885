// Tables: what opens, what is repaired, what is refused; reading. Where positions lead and what
// hostile bytes do is the matter of fuzz/.
#include <sys/stat.h>

#include <cstring>

#include "support.h"

namespace test {
namespace {

const Layout kTwo{0x03, {{"NAME", 'C', 5}}, {" Anna ", "*Berta"}};
const Layout kMemo{0x83, {{"NOTE", 'M', 10}}, {" " + padded("", 9) + "1"}};

TEST(Format, ReadsHeaderAndDescriptors) {
    const Folder folder;
    const std::string longName = "A_NAME_OF_THIRTY_ONE_CHARACTERS";
    for (const Flavour flavour : {kPlain, kLevel7, kForeignLevel7}) {
        const std::string name = flavour == kPlain ? longName.substr(0, 10) : longName;
        const u32 wide = flavour == kForeignLevel7 ? 0 : 1;  // told apart by the sum of the lengths
        const Layout layout{
            0x31, {{"ID", 'I', 4}, {name, 'C', 44, wide}, {"F", 'N', 10, 2}}, {}, flavour};
        const Table h = openLayout(folder, layout);
        EXPECT_EQ(h->Level7, flavour == kPlain ? 0u : 1u);
        EXPECT_EQ(h->Status, 0u);
        EXPECT_EQ(h->Fields[1].Name, name);
        EXPECT_EQ(GetLenField(h.get(), 1), 44 + 256 * wide);
        EXPECT_EQ(h->Fields[2].Offset, 49 + 256 * wide);
        EXPECT_EQ(h->Fields[2].Decimals, 2);
        EXPECT_EQ(h->Header.RecordLength, layout.recordLength());
        EXPECT_EQ(h->BackupName, folder.file("t.bak"));
        EXPECT_EQ(fieldcount(h.get()), 3u);
        EXPECT_EQ(fieldno(h.get(), 2), 2);
        EXPECT_EQ(GetFieldNum(h.get(), "id"), 0u);
        EXPECT_EQ(GetFieldNum(h.get(), "I"), 0xFFFFFFFF);
    }
}

TEST(Format, RepairsVersionRecordCountAndLength) {
    const Folder folder;
    const std::string accepted =
        "\x02\x03\x04\x30\x31\x43\x63\x83\x8B\x8C\xCB\xF5\xFB\xE5\x32\x42\x62\x82\x8A\xCA\xF4\xFA";
    for (int version = 0; version < 256; ++version) {
        const bool known = accepted.find(static_cast<char>(version)) != std::string::npos;
        const Table h =
            openBytes(folder, kTwo.bytes().replace(0, 1, le(static_cast<u64>(version), 1)));
        EXPECT_EQ(h->Status, known ? 0u : 1u) << version;
        EXPECT_EQ(h->Header.Version, known ? version : 0x03) << version;
    }
    EXPECT_EQ(openLayout(folder, {0x05, {{"TEXT", 'M', 10}}})->Header.Version, 0xF5);
    const Table h = openBytes(folder, kTwo.bytes().replace(4, 1, "M").replace(10, 1, "c"));
    EXPECT_EQ(h->Status, 4u);
    EXPECT_EQ(reccount(h.get()), 2u);
    EXPECT_EQ(h->Header.RecordLength, 6);
}

TEST(Format, LengthsTypesAndEndsOfTheList) {
    const Folder folder;
    const auto open = [&](const Layout& layout, std::size_t place, std::string_view bytes) {
        return openBytes(folder, layout.bytes().replace(place, bytes.size(), bytes));
    };
    const Table high = open({0x03, {{"A", 'C', 16, 1}}}, 10, le(17, 2));
    EXPECT_EQ(high->HighLength, 1u) << "the record length says that the decimal byte is no length";
    EXPECT_EQ(GetLenField(high.get(), 0), 16u);
    EXPECT_EQ(openLayout(folder, {0x03, {{"A", 'C', 2}, {"B", 'P', 2}}})->Status, 2u);
    EXPECT_FALSE(openLayout(folder, {0x03, {{"A", 'C', 2}, {"B", 'P', 2}, {"C", 'X', 1}}}))
        << "more invalid than valid";
    EXPECT_EQ(
        openLayout(folder, {0x03, {{"A", 'C', 253, 255}, {"B", 'C', 1}}})->Header.RecordLength,
        65535);
    EXPECT_FALSE(openLayout(folder, {0x03, {{"A", 'C', 255, 255}, {"B", 'C', 1}}}))
        << "fits no record buffer";

    Layout layout{0x03, {}};
    layout.columns.assign(2500, {"F", 'L', 1});
    EXPECT_EQ(open(layout, 8, le(65535, 2))->FieldCount, 2047);
    EXPECT_EQ(open(layout, 8, le(32 + 64 + 1, 2))->FieldCount, 4) << "ends after the header length";
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
        Layout layout{
            0x30, {{"A", 'C', 5}, {"B", 'N', 6, 2}, {"D", 'D', 8}}, {}, level7 ? kLevel7 : kPlain};
        layout.records.assign(4, " Anna   1.5020240229");
        std::string out = layout.bytes();
        const auto end = static_cast<std::size_t>(load(out, 8, 2)) - 1;
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
        bytes[place] = static_cast<char>(bytes[place] + 3);
        EXPECT_EQ(openBytes(dir, bytes)->FieldCount, 5) << place;
    }
}

TEST(Format, OddTablesThatProgramsHaveWritten) {
    const Column one{"A", 'C', 4}, two{"B", 'N', 4};
    const std::string longer = " abcd  12?";
    const auto with = [](const Layout& layout, std::size_t at, std::string_view by,
                         std::size_t erased = std::string::npos) {
        std::string bytes = layout.bytes().replace(at, by.size(), by);
        return erased < bytes.size() ? bytes.erase(erased, 1) : bytes;
    };
    // Fields, record length, the first record; null where it does not open.
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"longer records", with({3, {one, two}, {longer, longer}}, 10, "\x0A"), "2, 10:" + longer},
        {"no record to be longer", with({3, {one, two}, {}}, 10, "\x0A"), "2, 9:" + padded("", 9)},
        {"two end bytes, a bad terminator", with({3, {one, two}, {" abcd  12"}}, 96, "\n") + '\0',
         "2, 9: abcd  12"},
        {"a short header with byte 64 zero",
         with({3, {one}, std::vector(8, " abcd"s), kPlain, std::string(31, 0)}, 64, "\0"s),
         "1, 5: abcd"},
        {"no terminator", with({3, {one}, {" abcd"}}, 8, "\x40", 64), "1, 5: abcd"},
        {"no terminator, two fields", with({3, {one, two}, {" abcd  12"}}, 8, "\x60", 96),
         "2, 9: abcd  12"},
        {"no terminator, a bad letter", with({3, {{"A", 'P', 4}}, {" abcd"}}, 8, "\x40", 64),
         "null"},
        {"no terminator, a bad count", with({3, {one}, {" abcd"}}, 4, "\5\0\0\0\x40"s, 64), "null"},
        {"lengths of level 7 told by the file",
         with({3, {one, {"B", 'C', 5}}, {" abcdefghi"}, kForeignLevel7}, 10, "\x77"),
         "2, 10: abcdefghi"},
        {"no table", "These forty bytes are no table. Not one.", "null"}};
    for (const auto& [name, bytes, found] : cases) {
        const Folder folder;
        const Table h = openBytes(folder, bytes);
        if (h && reccount(h.get()) != 0) ReadRecord(h.get(), 0);
        const int fields = h ? h->FieldCount : 0, length = h ? h->Header.RecordLength : 0;
        const std::string record = h ? recordOf(h.get()) : "";
        EXPECT_EQ(h ? printed("%d, %d:%s", fields, length, record.c_str()) : "null", found) << name;
    }
}

TEST(Opening, DefaultsAndClosing) {
    const Folder folder;
    const Table h = openLayout(folder, kTwo);
    const auto openFiles = [] {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    const auto before = openFiles();
    EXPECT_EQ(h->UseFilterIndex, 1);
    EXPECT_EQ(h->CurrentRecord, 0xFFFFFFFF);
    EXPECT_EQ(h->ReadOnly, 0u);
    EXPECT_EQ(recordOf(h.get()), padded("", 6)) << "a blank record";
    for (const auto& open :
         {OpenBaseRO, +[](const char* path) { return OpenBaseCommon(path, 1); }}) {
        const Table readOnly(open(folder.file("t.dbf").c_str()));
        EXPECT_EQ(readOnly->ReadOnly, 1u);
        for (const int done : {WriteRecord(readOnly.get(), 0), AppendBlank(readOnly.get(), 1),
                               Pack(readOnly.get(), 0)})
            EXPECT_EQ(done, 0);
    }
    EXPECT_EQ(openFiles(), before) << "all closed";
    Close_File(h.get());
    EXPECT_EQ(openFiles(), before - 1);
    EXPECT_EQ(h->RecordBuffer, nullptr);
    for (const int done :
         {ReadRecord(h.get(), 0), WriteRecord(h.get(), 0), AppendBlank(h.get(), 0), Zap(h.get())})
        EXPECT_EQ(done, 0) << "closed";
    CloseBase(nullptr);
    EXPECT_FALSE(OpenBase(folder.file("missing.dbf").c_str()));
    EXPECT_FALSE(OpenBase(nullptr));
    EXPECT_FALSE(openBytes(folder, ""));
}

TEST(Opening, StepByStep) {
    const Folder folder;
    const Layout layout{0x8C, {{"A", 'C', 20}, {"B", 'C', 9}}, {}, kLevel7};
    writeAll(folder.file("t.dbf"), layout.bytes());
    const Table h(static_cast<DbfBase*>(std::malloc(sizeof(DbfBase))));
    SetDefOptions(h.get());
    EXPECT_STREQ(h->DateFormats[4], "%04d%02d%02d");
    h->TableFile = Open_File(folder.file("t.dbf").c_str());
    h->FileName = strdup("t.dbf");
    Level7Detect(h.get());
    EXPECT_EQ(h->HeaderSize, 68u);
    h->Status = 7;
    EXPECT_NE(ReadHeader(h.get()), 0);
    EXPECT_NE(ReadFields(h.get()), 0);
    EXPECT_EQ(h->Status, 0u);
    EXPECT_EQ(h->FieldCount, 2);
    std::filesystem::resize_file(folder.file("t.dbf"), 60);
    EXPECT_EQ(SetFilePointer(h->TableFile, 0, nullptr, SEEK_SET), 0u);
    EXPECT_EQ(ReadHeader(h.get()), 0) << "short";
}

TEST(Opening, OnlyRegularFilesAndNoneForTwoPurposes) {
    const Folder outer;
    mkfifo(outer.file("fifo").c_str(), 0600);
    for (const std::string& path : {outer.file("fifo"), outer.file(""), "/dev/full"s}) {
        EXPECT_EQ(OpenBase(path.c_str()), nullptr) << path;
        const Folder folder;
        for (const char* name : {"t.dbt", "t.hdr", "t.bak"})
            std::filesystem::create_symlink(path, folder.file(name));
        const Table h = openLayout(folder, kMemo);
        EXPECT_EQ(CreateDatabase(path.c_str(), h->Fields, 1, 0, 0, 0), 0);
        EXPECT_EQ(ReadRecord(h.get(), 0), 1);
        EXPECT_EQ(SetMemo(h.get(), 0, "text"), 0);
        EXPECT_EQ(GetMemo(h.get(), 0), nullptr);
        SetAliasName(h.get(), nullptr);
        for (auto* const useAliases : {WriteAlias, ReadAlias}) useAliases(h.get());
        EXPECT_EQ(MakeBakFile(h.get(), 1), 1) << "takes the place of a link";
        EXPECT_EQ(readAll(folder.file("t.bak")), kMemo.bytes());
    }
    const Table table = openLayout(outer, kMemo);
    for (const char* needed : {"t.bak", "./t.dbt", "./././t.dbf"}) {
        SetAliasName(table.get(), needed);
        WriteAlias(table.get());
        EXPECT_FALSE(std::filesystem::exists(outer.file("t.bak")));
        EXPECT_FALSE(std::filesystem::exists(outer.file("t.dbt")));
        EXPECT_EQ(readAll(outer.file("t.dbf")), kMemo.bytes());
    }
    const Table own = openLayout(outer, kMemo, "t.dbt");
    EXPECT_EQ(ReadRecord(own.get(), 0), 1);
    EXPECT_EQ(SetMemo(own.get(), 0, "text"), 0);
    EXPECT_EQ(Pack(own.get(), 0), 0);
    EXPECT_EQ(CreateMemoFile(own->FileName, 0, 0), 0);
    EXPECT_EQ(readAll(outer.file("t.dbt")), kMemo.bytes()) << "is not its own memo file";
}

TEST(Opening, TablesBeyond2GiBAreReadAndNotWrittenThere) {
    constexpr u64 size = (u64{3} << 31) + 4096;
    const FileSizeLimit none(RLIM_INFINITY);
    if (none.saved.rlim_cur < size) GTEST_SKIP() << "files may not be that long";
    const Folder folder;
    writeAll(folder.file("t.dbf"), kTwo.bytes());
    std::error_code refused;
    std::filesystem::resize_file(folder.file("t.dbf"), size, refused);
    if (refused) GTEST_SKIP() << refused.message();
    const Table h(OpenBase(folder.file("t.dbf").c_str()));
    const u32 last = static_cast<u32>((size - 65) / 6) - 1;
    std::FILE* const file = std::fopen(h->FileName, "rb+");
    fseeko(file, static_cast<off_t>(65 + u64{last} * 6), SEEK_SET);
    std::fwrite(" Clara", 1, 6, file);
    std::fclose(file);
    EXPECT_EQ(reccount(h.get()), last + 1);
    EXPECT_EQ(ReadRecord(h.get(), last) + ReadField(h.get(), last, 0) + ReadByte(h.get(), last), 3);
    EXPECT_EQ(recordOf(h.get()), " Clara");
    EXPECT_EQ(WriteRecord(h.get(), last) + WriteField(h.get(), last, 0) + WriteByte(h.get(), last) +
                  AppendBlank(h.get(), 1) + Delete(h.get(), 0) + Insert(h.get(), 0, 1) +
                  Truncate(h.get(), last),
              0);
    EXPECT_EQ(WriteRecord(h.get(), 1) + WriteHeader(h.get()), 2);
    EXPECT_EQ(std::filesystem::file_size(h->FileName), size);
    EXPECT_EQ(Zap(h.get()), 1);
}

TEST(Records, ReadsRecordsBytesAndFields) {
    const Folder folder;
    const Table h = openLayout(
        folder, {0x03, {{"NO", 'C', 3}, {"REST", 'C', 4}}, {" 100rest", "*101rest", " 102rest"}});
    EXPECT_EQ(GetRecord(h.get(), 0), 1);
    setRecord(h.get(), "????????");
    EXPECT_EQ(GetRecord(h.get(), 0), 1);
    EXPECT_EQ(ReadByte(h.get(), 1), 1);
    EXPECT_EQ(ReadField(h.get(), 2, 0), 1);
    EXPECT_EQ(recordOf(h.get()), "?102????") << "record 0 is not read again";
    EXPECT_EQ(h->DeleteFlag, '*');
    for (const int none : {7, -1}) EXPECT_EQ(ReadField(h.get(), 2, none), 0);
    const auto place = [&] { return SetFilePointer(h->TableFile, 0, nullptr, SEEK_CUR) - 97; };
    EXPECT_NE(SeekField(h.get(), 1, 1), 0);
    EXPECT_EQ(place(), 12u);
    EXPECT_NE(SeekRecord(h.get(), 2), 0);
    EXPECT_EQ(place(), 16u);
    EXPECT_NE(InternalSeekRecord(h.get(), 1), 0);
    EXPECT_EQ(place(), 8u);

    static int calls = 0;
    calls = 0;
    h->AfterRead = h->AfterReadByte = [](DbfBase*) { return ++calls; };
    EXPECT_EQ(ReadRecord(h.get(), 0), 1);
    EXPECT_EQ(ReadRecord(h.get(), 3), 0);
    EXPECT_EQ(ReadByte(h.get(), 0), 1);
    EXPECT_EQ(calls, 3) << "also at the end of the file";

    // Another program appends, then cuts in the middle of a record, then of the header.
    const std::pair<std::size_t, u32> sizes[] = {{97 + 4 * 8, 4}, {97 + 2 * 8 + 4, 2}, {40, 0}};
    for (const auto& [size, count] : sizes) {
        std::filesystem::resize_file(h->FileName, size);
        for (const int changed : {1, 0}) EXPECT_EQ(RefreshDatabase(h.get()), changed) << size;
        EXPECT_EQ(reccount(h.get()), count);
        EXPECT_EQ(ReadRecord(h.get(), 2), count > 2) << size;
        EXPECT_EQ(recordOf(h.get()).substr(0, 4), " 102") << "what is there";
    }
}

}  // namespace
}  // namespace test
