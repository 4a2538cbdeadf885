// Writing records, header, backup copy and field values.
#include "support.h"

namespace {

using namespace mira;
using namespace test;

/// More than two of the chunks in which files are copied and records moved.
const Layout kMany{0x03,
                   {{"NAME", 'C', 44, 1}, {"NUM", 'I', 4}},
                   std::vector<std::string>(1000, padded(" one", 305))};

TEST(Write, EachPieceGoesToItsPlaceAfterItsHook) {
    static std::string log;
    const TempDir dir;
    Layout layout = kMany;
    const Table h = openLayout(dir, layout);
    h->BeforeWrite = [](DbfBase* base) {
        log += base->Modified != 0 ? "late" : "record";
        base->RecordBuffer[2] = 'H';
        return SeekRecord(base, 2);  // where a hook leaves the file does not matter
    };
    h->BeforeWriteByte = [](DbfBase*) { return log += "byte", 0; };
    h->DeleteFlag = '?';
    const std::string rest = padded("", 298, 'n') + "\1\2\3\4";
    setRecord(h.get(), "!nx" + rest);
    const std::tuple<int (*)(DbfBase*, u32), std::string, std::string> cases[] = {
        {WriteByte, "byte", "?" + layout.records[1].substr(1)},
        {[](DbfBase* b, u32 position) { return WriteField(b, position, 0); }, "",
         "?nx" + rest.substr(0, 298) + "    "},
        {InternalWriteRecord, "record", "!nH" + rest},
        {WriteRecord, "record", "!nH" + rest}};
    for (const auto& [write, called, written] : cases) {
        EXPECT_EQ(write(h.get(), 0x7FFFFFFF), 0) << "out of reach";
        EXPECT_EQ(write(h.get(), 1), 1);
        EXPECT_EQ(std::exchange(log, "") + std::to_string(std::exchange(h->Modified, 0)),
                  called + "1");
        layout.records[1] = written;
        EXPECT_TRUE(readAll(h->FileName) == layout.bytes());
    }
    EXPECT_EQ(WriteField(h.get(), 0, 2) + WriteField(h.get(), 0, -1), 0);
}

TEST(Write, AppendedRecordsJoinTheSortOrder) {
    const TempDir dir;
    const Table h = openLayout(dir, kMany), other(OpenBase(h->FileName));
    h->SortDescending = 1;
    EXPECT_EQ(SortBase(h.get(), "NAME", nullptr) + AppendBlank(other.get(), 1), 2);
    EXPECT_TRUE(RefreshDatabase(h.get()) != 0 && AppendBlank(h.get(), 1) != 0);
    for (const u32 i : {0u, 1000u, 1001u}) EXPECT_EQ(GetOrder(h.get(), i), i == 0 ? 999 : i);
}

TEST(Write, FullDiskIsReportedByTheCallThatMeetsIt) {
    const TempDir dir;
    const std::string bytes = kMany.bytes();
    const Table h = openLayout(dir, kMany), readOnly(OpenBaseRO(h->FileName));
    for (const rlim_t room : {0u, 1u, 200u}) {
        const FileSizeLimit limit(bytes.size() - 1 + room);
        EXPECT_EQ(AppendBlank(h.get(), 1) + Insert(h.get(), 3, 1), 0);
        EXPECT_EQ(h->Header.RecordCount, 1000u);
        EXPECT_TRUE(readAll(h->FileName).starts_with(bytes.substr(0, bytes.size() - 1)));
        EXPECT_EQ(ReadRecord(h.get(), 2) + WriteRecord(h.get(), 2), 2) << "in place";
    }
    const std::unique_ptr<std::FILE, decltype(&std::fclose)> full(std::fopen("/dev/full", "wb"),
                                                                  std::fclose);
    EXPECT_EQ(WriteFile(full.get(), "x", 1), 0u);
    DbfBase* const base = readOnly.get();
    EXPECT_EQ(AppendBlank(base, 1) + Delete(base, 0) + Truncate(base, 1), 0);
}

TEST(Write, BackupIsMadeOnceAndWhole) {
    const TempDir dir;
    const std::string bytes = kMany.bytes();
    const Table h = openLayout(dir, kMany), own = openLayout(dir, kMany, "own.bak");
    writeAll(h->BackupName, "older");
    const std::tuple<i32, rlim_t, std::string> cases[] = {
        {0, 400000, "older"}, {1, 40000, "older"}, {1, 400000, bytes}};
    for (const auto& [enabled, room, copy] : cases) {
        const FileSizeLimit limit(room);
        h->BackupEnabled = enabled;
        overwrite(h->FileName, bytes);
        for (u32 i = 0; i < 2; ++i) EXPECT_EQ(WriteRecord(h.get(), i), 1);
        EXPECT_TRUE(readAll(h->BackupName) == copy) << room;
        EXPECT_EQ(h->BackupDone, copy == bytes);
    }
    EXPECT_EQ(MakeBakFile(own.get(), 1), 0) << "is its own backup";
    EXPECT_TRUE(readAll(own->FileName) == bytes);
    std::filesystem::remove(h->BackupName);
    std::filesystem::create_directory(h->BackupName);
    EXPECT_EQ(MakeBakFile(h.get(), 1) - h->BackupDone, 1) << "a directory stays";
    std::filesystem::remove(h->BackupName);
    std::filesystem::create_hard_link(h->FileName, h->BackupName);
    EXPECT_EQ(MakeBakFile(h.get(), 1), 0) << "the table by another name";
    std::filesystem::remove(h->BackupName);
    const std::string now = readAll(h->FileName);
    writeAll(dir.file("t.~a0"), now.substr(0, 40000));  // what a killed copy has left
    writeAll(dir.file("t.~a1"), "another's");
    EXPECT_EQ(MakeBakFile(h.get(), 1) + h->BackupDone, 2);
    EXPECT_TRUE(readAll(h->BackupName) == now && readAll(dir.file("t.~a1")) == "another's");
    EXPECT_FALSE(std::filesystem::exists(dir.file("t.~a0")));
}

// Values that fit are compared with a model where the fuzz targets run.
TEST(Write, ValuesStayInTheirField) {
    const TempDir dir;
    const Layout layout{0x83, {{"M", 'M', 10}, {"B", 'B', 10}, {"I", 'I', 4}, {"V", 'V', 3}}, {}};
    const Table h = openLayout(dir, layout);
    CreateMemoFile(h->FileName, 0, 0);
    setRecord(h.get(), std::string(28, '#'));
    SetValue(h.get(), 0, "abc", 0);
    SetValue(h.get(), 1, "abc", 1);
    for (const int field : {2, 4, -1}) SetValue(h.get(), field, "abc", 3e9);
    SetValue(h.get(), 3, nullptr, 1);
    EXPECT_EQ(recordOf(h.get()), "#         1         2\0\0\0\0###"s);
    EXPECT_EQ(memoOf(h.get(), 1), "a");
    EXPECT_EQ(SetBool(h.get(), -1, 1) + SetBool(h.get(), 3, 256), 'F');
}

}  // namespace
