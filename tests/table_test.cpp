// Tables: what opens, what is repaired, what is refused; positions and reading.
#include <sys/stat.h>

#include <cstring>
#include <random>

#include "support.h"

namespace test {
namespace {

const Layout kOneField{0x03, {{"NAME", 'C', 5}}, {" Anna ", "*Berta"}};

TEST(Format, ReadsHeaderAndDescriptors) {
    const Folder folder;
    const std::vector<Column> columns = {
        {"ID", 'I', 4}, {"LONGNAME12", 'C', 44, 1}, {"F", 'N', 10, 2}};
    for (const Flavour flavour : {kPlain, kLevel7, kForeignLevel7}) {
        Layout layout{0x31, columns, {}, flavour};
        if (flavour == kForeignLevel7) layout.columns[1].decimals = 0;  // told apart by the sum
        layout.records = {padded(" \x80", layout.recordLength(), 'x')};
        const Table h = openLayout(folder, layout);
        EXPECT_EQ(h->Level7, flavour == kPlain ? 0u : 1u);
        EXPECT_EQ(h->ForeignLevel7, flavour == kForeignLevel7 ? 1u : 0u);
        EXPECT_EQ(h->Status, 0u);
        EXPECT_STREQ(h->Fields[1].Name, "LONGNAME12");
        EXPECT_EQ(GetLenField(h.get(), 1), layout.columns[1].width());
        EXPECT_EQ(h->Fields[2].Offset, 5 + layout.columns[1].width());
        EXPECT_EQ(h->Fields[2].Decimals, 2);
        EXPECT_EQ(h->Header.RecordLength, layout.recordLength());
        EXPECT_EQ(h->FirstMemoField, -1);
        EXPECT_EQ(h->BackupName, folder.file("t.bak"));
        EXPECT_EQ(fieldcount(h.get()), 3u);
        EXPECT_EQ(fieldno(h.get(), 2), 2);
        EXPECT_EQ(GetFieldNum(h.get(), "longname12"), 1u);
        EXPECT_EQ(GetFieldNum(h.get(), "LONGNAME"), 0xFFFFFFFF);
    }
    Layout longest{0x8C, {{"A_NAME_OF_THIRTY_ONE_CHARACTERS", 'C', 3}, {"B", 'C', 1}}, {}, kLevel7};
    EXPECT_STREQ(openLayout(folder, longest)->Fields[0].Name, "A_NAME_OF_THIRTY_ONE_CHARACTERS");
}

TEST(Format, RepairsVersionRecordCountAndLength) {
    const Folder folder;
    const std::string accepted =
        "\x02\x03\x04\x30\x31\x43\x63\x83\x8B\x8C\xCB\xF5\xFB\xE5\x32\x42\x62\x82\x8A\xCA\xF4\xFA";
    std::string bytes = kOneField.bytes();
    for (int version = 0; version < 256; ++version) {
        bytes[0] = static_cast<char>(version);
        const bool known = accepted.find(bytes[0]) != std::string::npos;
        const Table h = openBytes(folder, bytes);
        EXPECT_EQ(h->Status, known ? 0u : 1u) << version;
        EXPECT_EQ(h->Header.Version, known ? version : 0x03) << version;
    }
    EXPECT_EQ(openLayout(folder, {0x05, {{"TEXT", 'M', 10}}})->Header.Version, 0xF5);
    const Table h = openBytes(folder, kOneField.bytes().replace(4, 1, "M").replace(10, 1, "c"));
    EXPECT_EQ(h->Status, 4u);
    EXPECT_EQ(reccount(h.get()), 2u);
    EXPECT_EQ(h->Header.RecordLength, 6);
}

TEST(Format, DecimalBytesAndTypeLetters) {
    const Folder folder;
    Layout layout{0x03, {{"A", 'C', 16, 1}}};
    EXPECT_EQ(GetLenField(openLayout(folder, layout).get(), 0), 272u);
    std::string bytes = layout.bytes();
    bytes.replace(10, 2, le(17, 2));  // the record length says that the decimal byte is no length
    const Table h = openBytes(folder, bytes);
    EXPECT_EQ(h->HighLength, 1u);
    EXPECT_EQ(GetLenField(h.get(), 0), 16u);

    layout = {0x03, {{"A", 'C', 2}, {"B", 'P', 2}}, {" aabb"}};
    EXPECT_EQ(openLayout(folder, layout)->Status, 2u);
    layout.columns.push_back({"C", 'X', 1});
    EXPECT_FALSE(openLayout(folder, layout)) << "more invalid letters than valid ones";
}

TEST(Format, DescriptorListsWithoutEnd) {
    const Folder folder;
    Layout layout{0x03, std::vector<Column>(2046, {"F", 'L', 1})};
    std::string bytes = layout.bytes();
    for (int i = 0; i < 50; ++i) bytes += bytes.substr(32, 32);
    bytes.erase(32 + 32 * 2046, 1);  // the terminator
    bytes.replace(8, 2, le(65535, 2));
    EXPECT_EQ(openBytes(folder, bytes)->FieldCount, 2047);
    bytes.replace(8, 2, le(32 + 64 + 1, 2));
    EXPECT_EQ(openBytes(folder, bytes)->FieldCount, 4) << "ends after the header length";

    // A record beyond 65535 bytes does not fit the record buffer.
    layout = {0x03, {{"A", 'C', 255, 255}, {"B", 'C', 1}}};
    EXPECT_FALSE(openLayout(folder, layout));
    layout.columns[0].length = 253;
    EXPECT_EQ(openLayout(folder, layout)->Header.RecordLength, 65535);
}

TEST(Format, ADamagedTerminatorEndsTheListWhereAllElseAgrees) {
    const Folder folder;
    Layout layout = kOneField;
    layout.columns = {{"A", 'C', 3}, {"B", 'C', 2}};
    std::string bytes = layout.bytes();
    bytes[32 + 64] = '\n';
    const Table h = openBytes(folder, bytes);
    ASSERT_TRUE(h);
    EXPECT_EQ(h->FieldCount, 2);
    EXPECT_EQ(reccount(h.get()), 2u);
}

TEST(Format, EveryCutAndEveryHeaderByte) {
    const Folder folder;
    for (const Flavour flavour : {kPlain, kLevel7}) {
        Layout layout{
            0x03, {{"A", 'C', 5}, {"B", 'N', 6, 2}, {"T", 'T', 8}, {"M", 'M', 10}}, {}, flavour};
        const std::size_t header = layout.bytes().size() - 1;
        layout.records.assign(3, " hello  1.50" + std::string(8, 1) + "         1");
        const std::string bytes = layout.bytes();
        std::vector<std::string> damaged;
        for (std::size_t i = 0; i < bytes.size(); ++i) damaged.push_back(bytes.substr(0, i));
        for (std::size_t i = 0; i < 4 * header; ++i) {
            damaged.push_back(bytes);
            damaged.back()[i / 4] = "\xFF\rC"[i % 4];  // or the zero byte after them
        }
        for (const std::string& table : damaged) {
            const Table h = openBytes(folder, table);
            for (u32 r = 0; h && r < std::min(reccount(h.get()), 20u); ++r) {
                ReadRecord(h.get(), r);
                for (int f = 0; f < h->FieldCount; ++f) EXPECT_NE(GetStr(h.get(), f), nullptr);
            }
        }
    }
}

TEST(Opening, DefaultsAndClosing) {
    const Folder folder;
    const Table h = openLayout(folder, kOneField);
    EXPECT_EQ(h->UseFilterIndex, 1);
    EXPECT_EQ(h->CurrentRecord, 0xFFFFFFFF);
    EXPECT_EQ(h->ReadOnly, 0u);
    EXPECT_EQ(h->DateFormat | h->TrimMode | h->Reverse | h->BackupEnabled, 0);
    EXPECT_EQ(recordOf(h.get()), padded("", 6)) << "a blank record";
    for (const auto& open :
         {OpenBaseRO, +[](const char* path) { return OpenBaseCommon(path, 1); }}) {
        const Table readOnly(open(folder.file("t.dbf").c_str()));
        EXPECT_EQ(readOnly->ReadOnly, 1u);
        EXPECT_EQ(WriteRecord(readOnly.get(), 0), 0);
        EXPECT_EQ(AppendBlank(readOnly.get(), 1), 0);
        EXPECT_EQ(Pack(readOnly.get(), 0), 0);
    }
    const auto openFiles = [] {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    const auto before = openFiles();
    CloseBase(OpenBase(folder.file("t.dbf").c_str()));
    EXPECT_EQ(openFiles(), before);
    Close_File(h.get());
    EXPECT_EQ(openFiles(), before - 1);
    EXPECT_EQ(h->RecordBuffer, nullptr);
    EXPECT_EQ(ReadRecord(h.get(), 0), 0) << "closed";
    EXPECT_EQ(AppendBlank(h.get(), 0), 0) << "closed";
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
    EXPECT_NE(ReadHeader(h.get()), 0);
    EXPECT_NE(ReadFields(h.get()), 0);
    EXPECT_EQ(h->FieldCount, 2);
    std::filesystem::resize_file(folder.file("t.dbf"), 60);
    EXPECT_EQ(SetFilePointer(h->TableFile, 0, nullptr, SEEK_SET), 0u);
    EXPECT_EQ(ReadHeader(h.get()), 0) << "short";
}

TEST(Opening, OnlyRegularFiles) {
    const Folder outer;
    mkfifo(outer.file("fifo").c_str(), 0600);
    const Layout layout{0x83, {{"NOTE", 'M', 10}}, {" " + padded("", 9) + "1"}};
    for (const std::string& path : {outer.file("fifo"), outer.file(""), "/dev/full"s}) {
        EXPECT_EQ(OpenBase(path.c_str()), nullptr) << path;
        const Folder folder;
        for (const char* name : {"t.dbt", "t.hdr", "t.bak"})
            std::filesystem::create_symlink(path, folder.file(name));
        const Table h = openLayout(folder, layout);
        EXPECT_EQ(CreateDatabase(path.c_str(), h->Fields, 1, 0, 0, 0), 0);
        EXPECT_EQ(ReadRecord(h.get(), 0), 1);
        EXPECT_EQ(SetMemo(h.get(), 0, "text"), 0);
        EXPECT_EQ(GetMemo(h.get(), 0), nullptr);
        SetAliasName(h.get(), nullptr);
        for (auto* const useAliases : {WriteAlias, ReadAlias}) useAliases(h.get());
        EXPECT_EQ(MakeBakFile(h.get(), 1), 1) << "takes the place of a link";
        EXPECT_EQ(readAll(folder.file("t.bak")), layout.bytes());
    }
}

TEST(Opening, ATableIsNotItsOwnMemoFile) {
    const Folder folder;
    const Layout layout{0x83, {{"NOTE", 'M', 10}}, {" " + padded("", 9) + "1"}};
    const Table h = openLayout(folder, layout, "t.dbt");
    EXPECT_EQ(ReadRecord(h.get(), 0), 1);
    EXPECT_EQ(SetMemo(h.get(), 0, "text"), 0);
    EXPECT_EQ(Pack(h.get(), 0), 0);
    EXPECT_EQ(CreateMemoFile(h->FileName, 0, 0), 0);
    EXPECT_EQ(readAll(folder.file("t.dbt")), layout.bytes());
}

TEST(Opening, BeyondWhat31BitsReach) {
    const FileSizeLimit none(RLIM_INFINITY);
    if (none.saved.rlim_cur < (rlim_t{1} << 31) + 4096)
        GTEST_SKIP() << "files may not be that long";
    const Folder folder;
    writeAll(folder.file("t.dbf"), kOneField.bytes());
    std::error_code refused;
    std::filesystem::resize_file(folder.file("t.dbf"), (std::uintmax_t{1} << 31) + 4096, refused);
    if (refused) GTEST_SKIP() << refused.message();
    const Table h(OpenBase(folder.file("t.dbf").c_str()));
    EXPECT_EQ(reccount(h.get()), ((1u << 31) + 4096 - 65) / 6);
    EXPECT_EQ(ReadRecord(h.get(), 1), 1);
    EXPECT_EQ(ReadRecord(h.get(), reccount(h.get()) - 1), 0);
}

Layout numbered(int count) {
    Layout layout{0x03, {{"NO", 'C', 3}, {"REST", 'C', 4}}};
    for (int i = 0; i < count; ++i)
        layout.records.push_back(" " + std::to_string(100 + i) + "rest");
    return layout;
}

std::string at(DbfBase* h, u32 position) {
    return ReadRecord(h, position) != 0 ? GetStr(h, 0) : "failed";
}

TEST(Records, PositionsGoThroughReverseSortAndFilter) {
    const Folder folder;
    const Table h = openLayout(folder, numbered(5));
    u32 filter[] = {1, 3, 4}, order[] = {2, 0, 1};
    const auto view = [&](bool filtered, bool sorted, int reverse) {
        h->FilterIndex = filtered ? filter : nullptr;
        h->FilterCount = 3;
        h->SortOrder = sorted ? order : nullptr;
        h->Reverse = reverse;
        std::string seen;  // the one after the last is not
        for (u32 i = 0; i <= reccount(h.get()); ++i) seen += at(h.get(), i) + " ";
        EXPECT_EQ(GetOrder(h.get(), 1), sorted ? 0u : 1u);
        EXPECT_EQ(recno(h.get(), 1), filtered ? 3u : 1u);
        h->FilterIndex = h->SortOrder = nullptr;
        return seen;
    };
    EXPECT_EQ(view(false, false, 1), "104 103 102 101 100 failed ");
    EXPECT_EQ(view(true, false, 0), "101 103 104 failed ");
    EXPECT_EQ(view(true, true, 0), "104 101 103 failed ");
    EXPECT_EQ(view(true, true, 1), "103 101 104 failed ");
    h->UseFilterIndex = 0;
    EXPECT_EQ(view(true, false, 0), "100 101 102 103 ") << "not used";
}

TEST(Records, ReadsRecordsBytesAndFields) {
    const Folder folder;
    Layout layout = numbered(3);
    layout.records[1][0] = '*';
    const Table h = openLayout(folder, layout);
    EXPECT_EQ(GetRecord(h.get(), 0), 1);
    setRecord(h.get(), "????????");
    EXPECT_EQ(GetRecord(h.get(), 0), 1);
    EXPECT_EQ(ReadByte(h.get(), 1), 1);
    EXPECT_EQ(ReadField(h.get(), 2, 0), 1);
    EXPECT_EQ(recordOf(h.get()), "?102????") << "record 0 is not read again";
    EXPECT_EQ(h->DeleteFlag, '*');
    for (const int none : {7, -1}) EXPECT_EQ(ReadField(h.get(), 2, none), 0);
    for (const auto& [seek, place] : {std::pair(
                                          +[](DbfBase* b) { return SeekField(b, 1, 1); }, 12u),
                                      {[](DbfBase* b) { return SeekRecord(b, 2); }, 16u},
                                      {[](DbfBase* b) { return InternalSeekRecord(b, 1); }, 8u}}) {
        EXPECT_NE(seek(h.get()), 0);
        EXPECT_EQ(SetFilePointer(h->TableFile, 0, nullptr, SEEK_CUR), 97 + place);
    }
    static int calls = 0;
    calls = 0;
    h->AfterRead = h->AfterReadByte = [](DbfBase*) { return ++calls; };
    EXPECT_EQ(ReadRecord(h.get(), 0), 1);
    EXPECT_EQ(ReadRecord(h.get(), 3), 0);
    EXPECT_EQ(ReadByte(h.get(), 0), 1);
    EXPECT_EQ(calls, 3) << "also at the end of the file";

    std::filesystem::resize_file(h->FileName, 97 + 3 * 8 - 4);
    EXPECT_EQ(RefreshDatabase(h.get()), 1);
    EXPECT_EQ(ReadRecord(h.get(), 2), 0) << "short";
    EXPECT_EQ(recordOf(h.get()).substr(0, 4), " 102") << "and shown";
}

// Any mixture of reads and writes through two handles, and by another program followed by a
// refresh, gives what the file holds.
TEST(Records, ReadAheadIsNeverStale) {
    const Folder folder;
    Layout layout = numbered(900);
    const Table a = openLayout(folder, layout), b(OpenBase(folder.file("t.dbf").c_str()));
    std::mt19937 random(7);
    u32 next = 0;
    for (int step = 0; step < 20000; ++step) {
        DbfBase* h = random() % 3 == 0 ? b.get() : a.get();
        next = random() % 50 == 0 ? static_cast<u32>(random() % 900) : (next + 1) % 900;
        std::string& record = layout.records[next];
        if (random() % 20 == 0) {
            record = " " + std::to_string(100 + random() % 900) + "rest";
            ASSERT_EQ(InternalSeekRecord(h, next), 1);
            ASSERT_EQ(WriteFile(h->TableFile, record.data(), 8), 8u);
        } else {
            ASSERT_EQ(ReadRecord(h, next), 1);
            ASSERT_EQ(recordOf(h), record) << step;
        }
    }
    layout.records[0] = " 999rest";
    layout.records.push_back(" 998rest");
    at(a.get(), 898);
    overwrite(folder.file("t.dbf"), layout.bytes());
    for (const int changed : {1, 0}) EXPECT_EQ(RefreshDatabase(a.get()), changed);
    EXPECT_EQ(at(a.get(), 900), "998");
    EXPECT_EQ(at(a.get(), 0), "999");
    std::filesystem::resize_file(folder.file("t.dbf"), 40);
    EXPECT_EQ(RefreshDatabase(a.get()), 1);
    EXPECT_EQ(reccount(a.get()), 0u);
}

}  // namespace
}  // namespace test
