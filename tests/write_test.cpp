// Writing records, header, backup copy and field values.
#include <cstring>
#include <utility>

#include "support.h"

namespace {

using namespace mira;
using namespace test;

Layout threeRecords() {
    return {0x03,
            {{"NAME", 'C', 300 % 256, 1}, {"NUM", 'I', 4}},
            {" " + padded("one", 304), "*" + padded("two", 304), " " + padded("tre", 304)}};
}

void fill(DbfBase* h, std::string_view record) {
    std::copy(record.begin(), record.end(), h->RecordBuffer);
}

TEST(Write, EachPieceGoesToItsPlaceAfterItsHook) {
    static std::string log;
    const TempDir dir;
    Layout layout = threeRecords();
    auto& records = layout.records;
    const Table h = openLayout(dir, layout);
    h->BeforeWrite = [](DbfBase* base) {
        log = base->Modified != 0 ? "late" : "record";
        base->RecordBuffer[2] = 'H';
        return SeekRecord(base, 2);  // where a hook leaves the file does not matter
    };
    h->BeforeWriteByte = [](DbfBase*) { return log = "byte", 0; };
    const std::string record = "!" + padded("new", 300, 'n') + "\1\2\3\4";
    fill(h.get(), record);
    h->DeleteFlag = '?';
    const struct {
        int (*write)(DbfBase*, u32);
        std::string log;
        std::size_t column, length;
    } cases[] = {{WriteByte, "byte", 0, 0},
                 {[](DbfBase* b, u32 p) { return WriteField(b, p, 0); }, "", 1, 300},
                 {InternalWriteRecord, "record", 0, 305},
                 {WriteRecord, "record", 0, 305}};
    for (const auto& c : cases) {
        log.clear();
        h->Modified = 0;
        EXPECT_EQ(c.write(h.get(), 0x7FFFFFFF), 0) << "out of reach";
        EXPECT_EQ(log, "");
        EXPECT_EQ(h->Modified, 0u);
        EXPECT_EQ(c.write(h.get(), 1), 1);
        EXPECT_EQ(log, c.log);
        EXPECT_EQ(h->Modified, 1u);
        records[1].replace(c.column, c.length, record.substr(c.column, c.length));
        if (c.column + c.length == 0) records[1][0] = '?';
        if (c.length == 305) records[1][2] = 'H';
        EXPECT_EQ(readAll(h->FileName), layout.bytes());
    }
    EXPECT_EQ(WriteField(h.get(), 0, 2) + WriteField(h.get(), 0, -1), 0);
    h->Reverse = 1;
    EXPECT_EQ(WriteRecord(h.get(), 3), 0) << "beyond a reversed view";
    EXPECT_EQ(WriteRecord(h.get(), 0), 1);
    records[2] = records[1];
    EXPECT_EQ(readAll(h->FileName), layout.bytes());

    EXPECT_EQ(DupRecord(h.get()), 1);
    ClearRecord(h.get());
    DupToRecord(h.get());
    EXPECT_EQ(std::memcmp(h->RecordBuffer, records[1].data(), 305), 0);
}

TEST(Write, AppendedRecordsJoinTheView) {
    const TempDir dir;
    Layout layout = threeRecords();
    const Table h = openLayout(dir, layout);
    EXPECT_EQ(AppendBlank(h.get(), 1), 1);
    layout.records.push_back(std::string(301, ' ') + "\0\0\0\0"s);
    fill(h.get(), " sort"s);
    h->SortOrder = static_cast<u32*>(std::calloc(2, 4));  // two were sorted, two have come since
    h->SortOrderCount = 2;
    h->SortOrder[0] = 1;
    EXPECT_EQ(AppendBlank(h.get(), 0), 1);
    EXPECT_EQ(std::vector<u32>(h->SortOrder, h->SortOrder + 5), (std::vector<u32>{1, 0, 2, 3, 4}));
    EXPECT_EQ(h->SortOrderCount, 5u);
    ClearSort(h.get());
    h->FilterIndex = static_cast<u32*>(std::calloc(1, 4));
    h->FilterCount = 1;
    h->UseFilterIndex = 0;
    EXPECT_EQ(AppendBlank(h.get(), 0), 1);
    layout.records.resize(6, padded(" sort", 301) + "\0\0\0\0"s);
    EXPECT_EQ(recno(h.get(), 1), 5u);
    EXPECT_EQ(h->UseFilterIndex, 1);
    EXPECT_EQ(readAll(h->FileName), layout.bytes().replace(1, 3, today()));
}

TEST(Write, FullDiskIsReportedByTheCallThatMeetsIt) {
    const TempDir dir;
    Layout layout = threeRecords();
    layout.records.resize(2000, layout.records[1]);
    const Table h = openLayout(dir, layout);
    const std::string bytes = layout.bytes();
    for (const rlim_t room : {0u, 1u, 200u}) {
        const FileSizeLimit limit(bytes.size() - 1 + room);
        EXPECT_EQ(AppendBlank(h.get(), 1) + Insert(h.get(), 3, 1), 0);
        EXPECT_EQ(h->Header.RecordCount, 2000u);
        EXPECT_TRUE(readAll(h->FileName).starts_with(bytes.substr(0, bytes.size() - 1)));
        EXPECT_EQ(ReadRecord(h.get(), 2) + WriteRecord(h.get(), 2), 2) << "in place";
    }
    const std::unique_ptr<std::FILE, decltype(&std::fclose)> full(std::fopen("/dev/full", "wb"),
                                                                  std::fclose);
    EXPECT_EQ(WriteFile(full.get(), "x", 1), 0u);
    const Table readOnly(OpenBaseRO(h->FileName));
    for (auto* write : {WriteRecord, InternalWriteRecord, WriteByte}) {
        EXPECT_EQ(write(readOnly.get(), 0), 0);
    }
    EXPECT_EQ(WriteHeader(readOnly.get()) + AppendBlank(readOnly.get(), 1), 0);
}

TEST(Write, BackupIsMadeOnceAndWhole) {
    const TempDir dir;
    Layout layout = threeRecords();
    layout.records.resize(300, layout.records[0]);  // more than two chunks
    const Table h = openLayout(dir, layout);
    writeAll(h->BackupName, "older");
    EXPECT_EQ(MakeBakFile(h.get(), 0), 1);
    EXPECT_EQ(readAll(h->BackupName), "older") << "not asked for";
    h->BackupEnabled = 1;
    for (const int wanted : {0, 1}) {
        overwrite(h->FileName, layout.bytes());
        const FileSizeLimit limit(wanted != 0 ? 200000 : 40000);
        for (u32 i = 0; i < 2; ++i) EXPECT_EQ(WriteRecord(h.get(), i), 1);
        EXPECT_EQ(h->BackupDone, wanted);
        EXPECT_EQ(std::filesystem::exists(h->BackupName), wanted != 0) << "no half copy";
    }
    EXPECT_TRUE(readAll(h->BackupName) == layout.bytes());
    EXPECT_EQ(MakeBakFile(h.get(), 1), 1);
    EXPECT_TRUE(readAll(h->BackupName) == readAll(h->FileName));

    const Table own = openLayout(dir, layout, "own.bak");
    own->BackupEnabled = 1;
    EXPECT_EQ(MakeBakFile(own.get(), 0), 0);
    EXPECT_EQ(WriteRecord(own.get(), 0), 1);
    EXPECT_EQ(readAll(own->FileName).size(), layout.bytes().size());
    std::free(std::exchange(own->BackupName, nullptr));
    EXPECT_EQ(MakeBakFile(own.get(), 1), 0);
}

TEST(Write, ValuesGoIntoTheFieldByItsType) {
    const struct {
        char type;
        unsigned length, decimals;
        const char* text;
        double number;
        std::string stored;
    } cases[] = {
        {'C', 10, 0, "HELLO", 7, "HELLO#####"},
        {'Q', 3, 0, "ABCDEF", 0, "ABC"},
        {'C', 44, 1, "x", 0, padded("x", 300, '#')},
        {'V', 3, 0, nullptr, 0, "###"},
        {'D', 8, 0, "20260131", 0, "20260131"},
        {'T', 14, 0, "20260131102030", 0, "20260131102030"},
        {'L', 1, 0, "yes", 0, "Y"},
        {'L', 1, 0, "x", 0, " "},
        {'N', 8, 2, "text", 3.14159, "    3.14"},
        {'F', 5, 0, "text", 123456, "#####"},
        {'I', 4, 0, "", 3e9, "\0\0\0\0"s},
        {'+', 4, 0, "", -7.9, "\xF9\xFF\xFF\xFF"s},
        {'I', 3, 0, "", 5, "###"},
        {'O', 8, 0, "", -1, "\x40\x0F\xFF\xFF\xFF\xFF\xFF\xFF"},
        {'Y', 8, 0, "", 2.71828, "\x2E\x6A\0\0\0\0\0\0"s},
        {'B', 8, 0, "", 1, "\0\0\0\0\0\0\xF0\x3F"s},
        {'P', 4, 0, "abcd", 1, "####"},
        {'0', 4, 0, "abcd", 1, "####"},
        {'M', 10, 0, "abc", 0, "         1"},
        {'B', 10, 0, "a\0c", 3, "         1"},
        {'G', 10, 0, "abc", 0.5, "##########"},
    };
    for (const auto& c : cases) {
        const TempDir dir;
        const Table h =
            openLayout(dir, {0x83, {{"F", c.type, c.length, c.decimals}, {"AFTER", 'C', 20}}, {}});
        CreateMemoFile(h->FileName, 0, 0);
        fill(h.get(), std::string(c.stored.size() + 21, '#'));
        for (const int field : {-1, 2}) {
            SetValue(h.get(), field, "abc", 1);
            SetString(h.get(), field, "abc");
            EXPECT_EQ(SetBool(h.get(), field, 1), 0);
        }
        SetValue(h.get(), 0, c.text, c.number);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(h->RecordBuffer), c.stored.size() + 21),
                  '#' + c.stored + std::string(20, '#'))
            << c.type;
        EXPECT_EQ(SetBool(h.get(), 0, 1), 'T');
        EXPECT_EQ(SetBool(h.get(), 0, 256), 'F');
        EXPECT_EQ(h->RecordBuffer[1], 'F');
    }
}

}  // namespace
