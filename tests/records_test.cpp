// Positions and reading.
#include <cstring>
#include <random>

#include "support.h"

using namespace mira;
using namespace test;

namespace {

Layout numbered(int count) {
    Layout layout{0x03, {{"NO", 'C', 3}, {"REST", 'C', 4}}, {}};
    for (int i = 0; i < count; ++i)
        layout.records.push_back(" " + std::to_string(100 + i) + "rest");
    return layout;
}

std::string at(DbfBase* h, u32 position) {
    return ReadRecord(h, position) != 0 ? GetStr(h, 0) : "failed";
}

TEST(Records, PositionsGoThroughReverseSortAndFilter) {
    TempDir dir;
    const Table h = openLayout(dir, numbered(5));
    u32 filter[] = {1, 3, 4}, order[] = {2, 0, 1};
    const auto view = [&](bool filtered, bool sorted, int reverse) {
        h->FilterIndex = filtered ? filter : nullptr;
        h->FilterCount = 3;
        h->SortOrder = sorted ? order : nullptr;
        h->Reverse = reverse;
        std::string seen;  // the one behind the last is not
        for (u32 i = 0; i <= reccount(h.get()); ++i) seen += at(h.get(), i) + " ";
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
    TempDir dir;
    Layout layout = numbered(3);
    layout.records[1][0] = '*';
    const Table h = openLayout(dir, layout);
    EXPECT_TRUE(GetRecord(h.get(), 0));
    std::memset(h->RecordBuffer, '?', 8);
    EXPECT_EQ(GetRecord(h.get(), 0) + ReadByte(h.get(), 1) + ReadField(h.get(), 2, 0), 3);
    EXPECT_EQ(std::memcmp(h->RecordBuffer, "?102????", 8), 0) << "record 0 is not read again";
    EXPECT_EQ(h->DeleteFlag, '*');
    EXPECT_EQ(ReadField(h.get(), 2, 7) + ReadField(h.get(), 2, -1), 0);
    EXPECT_TRUE(SeekField(h.get(), 1, 1));
    EXPECT_EQ(SetFilePointer(h->TableFile, 0, nullptr, SEEK_CUR), 97u + 8 + 4);

    static int calls = 0;
    h->AfterRead = h->AfterReadByte = [](DbfBase*) { return ++calls; };
    EXPECT_EQ(ReadRecord(h.get(), 0) + ReadRecord(h.get(), 3) + ReadByte(h.get(), 0), 2);
    EXPECT_EQ(calls, 3) << "also at the end of the file";
}

TEST(Records, ShortLastRecordIsReportedAndShown) {
    TempDir dir;
    const std::string bytes = numbered(2).bytes();
    const Table h = openBytes(dir, bytes.substr(0, bytes.size() - 4));
    EXPECT_EQ(reccount(h.get()), 1u);
    EXPECT_FALSE(ReadRecord(h.get(), 1));
    EXPECT_EQ(std::memcmp(h->RecordBuffer, " 101r", 5), 0);
}

// Any mixture of reads and writes through two handles, and by another program followed by a
// refresh, gives what the file holds.
TEST(Records, ReadAheadIsNeverStale) {
    TempDir dir;
    Layout layout = numbered(900);
    const Table a = openLayout(dir, layout);
    const Table b(OpenBase(dir.file("t.dbf").c_str()));
    std::mt19937 random(7);
    u32 next = 0;
    for (int step = 0; step < 20000; ++step) {
        DbfBase* h = random() % 3 == 0 ? b.get() : a.get();
        next = random() % 50 == 0 ? static_cast<u32>(random() % 900) : (next + 1) % 900;
        std::string& record = layout.records[next];
        if (random() % 20 == 0) {
            record = " " + std::to_string(100 + random() % 900) + "rest";
            ASSERT_TRUE(InternalSeekRecord(h, next));
            ASSERT_EQ(WriteFile(h->TableFile, record.data(), 8), 8u);
        } else {
            ASSERT_TRUE(ReadRecord(h, next));
            ASSERT_EQ(std::string(reinterpret_cast<char*>(h->RecordBuffer), 8), record) << step;
        }
    }
    layout.records[0] = " 999rest";
    layout.records.push_back(" 998rest");
    at(a.get(), 898);
    overwrite(dir.file("t.dbf"), layout.bytes());
    for (const int changed : {1, 0}) EXPECT_EQ(RefreshDatabase(a.get()), changed);
    EXPECT_EQ(at(a.get(), 900), "998");
    EXPECT_EQ(at(a.get(), 0), "999");
    std::filesystem::resize_file(dir.file("t.dbf"), 40);
    EXPECT_EQ(RefreshDatabase(a.get()), 1);
    EXPECT_EQ(reccount(a.get()), 0u);
}

TEST(Files, PathsAndWrappers) {
    char drive[4], dir[256], name[256], ext[10], made[260];
    const std::string longPath = repeat("d", 300) + "/" + repeat("n", 300) + ".extension1";
    for (const auto& [path, expected] :
         rows("a.b/c.tar.gz=a.b/|c.tar|.gz;d.e/plain=d.e/|plain|;" + longPath + "=" +
              repeat("d", 255) + "|" + repeat("n", 255) + "|.extensio")) {
        _splitpath(path.c_str(), drive, dir, name, ext);
        EXPECT_EQ(dir + "|"s + name + "|" + ext, expected);
    }
    std::strcpy(made, "x/t.dbf");
    MakeExt(made, made, ".bak", nullptr);
    EXPECT_STREQ(made, "x/t.bak") << "in place";
    _splitpath(made, drive, dir, made, ext);
    EXPECT_EQ(std::string(dir) + "|" + made + "|" + ext, "x/|t|.bak") << "in place";
    MakeExt(made, "x/t.dbf", ".bak", "other.hdr");
    EXPECT_STREQ(made, "x/other.hdr");
    MakeExt(made, longPath.c_str(), ".bak", nullptr);
    EXPECT_STREQ(made, "");
    EXPECT_EQ(Calc64(65535, 0xFFFFFFFF, 65535), 281470681743360ULL);
    EXPECT_EQ(ReadFile(nullptr, made, 1), 0u);
    EXPECT_EQ(SetFilePointer(nullptr, 0, nullptr, SEEK_SET), 0xFFFFFFFF);
}

}  // namespace
