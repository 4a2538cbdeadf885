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

u32* owned(std::initializer_list<u32> values) {
    auto* block = static_cast<u32*>(std::malloc(values.size() * sizeof(u32)));
    std::copy(values.begin(), values.end(), block);
    return block;
}

TEST(Records, PositionsGoThroughReverseSortAndFilter) {
    TempDir dir;
    const Table h = openLayout(dir, numbered(5));
    h->Reverse = 1;
    EXPECT_EQ(at(h.get(), 0), "104");
    EXPECT_EQ(at(h.get(), 5), "failed");
    h->Reverse = 0;
    h->FilterIndex = owned({1, 3, 4});
    h->FilterCount = 3;
    EXPECT_EQ(reccount(h.get()), 3u);
    EXPECT_EQ(at(h.get(), 1), "103");
    EXPECT_EQ(at(h.get(), 3), "failed");
    EXPECT_EQ(recno(h.get(), 3), 4294967295u);
    h->SortOrder = owned({2, 0, 1});
    EXPECT_EQ(at(h.get(), 0), "104");
    EXPECT_EQ(GetOrder(h.get(), 3), 4294967295u);
    h->Reverse = 1;
    EXPECT_EQ(at(h.get(), 0), "103");
    h->Reverse = 0;
    std::free(h->SortOrder);
    h->SortOrder = nullptr;
    h->UseFilterIndex = 0;
    EXPECT_EQ(at(h.get(), 0), "100");
    EXPECT_EQ(at(h.get(), 4), "104");
}

TEST(Records, ReadsRecordsBytesAndFields) {
    TempDir dir;
    Layout layout = numbered(3);
    layout.records[1][0] = '*';
    const Table h = openLayout(dir, layout);
    EXPECT_TRUE(GetRecord(h.get(), 0));
    std::memset(h->RecordBuffer, '?', 8);
    EXPECT_TRUE(GetRecord(h.get(), 0));  // not read again
    EXPECT_EQ(h->RecordBuffer[1], '?');
    EXPECT_TRUE(ReadByte(h.get(), 1));
    EXPECT_EQ(h->DeleteFlag, '*');
    EXPECT_TRUE(ReadField(h.get(), 2, 0));
    EXPECT_EQ(std::memcmp(h->RecordBuffer, "?102????", 8), 0);
    EXPECT_FALSE(ReadField(h.get(), 2, 7));
    EXPECT_FALSE(ReadField(h.get(), 2, -1));
    EXPECT_TRUE(SeekField(h.get(), 1, 1));
    EXPECT_EQ(SetFilePointer(h->TableFile, 0, nullptr, SEEK_CUR), 97u + 8 + 4);

    static int calls;
    calls = 0;
    h->AfterRead = h->AfterReadByte = [](DbfBase*) { return ++calls; };
    ReadRecord(h.get(), 0);
    ReadRecord(h.get(), 3);  // the end of the file: called all the same
    ReadByte(h.get(), 0);
    EXPECT_EQ(calls, 3);
}

TEST(Records, ShortLastRecordIsReportedAndShown) {
    TempDir dir;
    const std::string bytes = numbered(2).bytes();
    writeAll(dir.file("t.dbf"), bytes.substr(0, bytes.size() - 4));
    const Table h(OpenBaseRO(dir.file("t.dbf").c_str()));
    EXPECT_EQ(reccount(h.get()), 1u);
    EXPECT_FALSE(ReadRecord(h.get(), 1));
    EXPECT_EQ(std::memcmp(h->RecordBuffer, " 101r", 5), 0);
    EXPECT_EQ(WriteFile(h->TableFile, "x", 1), 0u);  // read-only
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
    EXPECT_EQ(RefreshDatabase(a.get()), 1);
    EXPECT_EQ(RefreshDatabase(a.get()), 0);
    EXPECT_EQ(at(a.get(), 900), "998");
    EXPECT_EQ(at(a.get(), 0), "999");
    std::filesystem::resize_file(dir.file("t.dbf"), 40);
    EXPECT_EQ(RefreshDatabase(a.get()), 1);
    EXPECT_EQ(reccount(a.get()), 0u);
}

TEST(Files, PathsAndWrappers) {
    char drive[4], dir[256], name[256], ext[10];
    const auto split = [&](const char* path) {
        _splitpath(path, drive, dir, name, ext);
        return dir + "|"s + name + "|" + ext;
    };
    EXPECT_EQ(split("a.b/c.tar.gz"), "a.b/|c.tar|.gz");
    EXPECT_EQ(split("d.e/plain"), "d.e/|plain|");
    const std::string longPath =
        std::string(300, 'd') + "/" + std::string(300, 'n') + ".extension1";
    EXPECT_EQ(split(longPath.c_str()).size(), 255u + 1 + 255 + 1 + 9);
    char made[260];
    MakeExt(made, "x/t.dbf", ".bak", nullptr);
    EXPECT_STREQ(made, "x/t.bak");
    MakeExt(made, "x/t.dbf", ".bak", "other.hdr");
    EXPECT_STREQ(made, "x/other.hdr");
    MakeExt(made, longPath.c_str(), ".bak", nullptr);
    EXPECT_STREQ(made, "");
    EXPECT_EQ(Calc64(65535, 0xFFFFFFFF, 65535), 281470681743360ULL);
    EXPECT_EQ(ReadFile(nullptr, made, 1), 0u);
    EXPECT_EQ(SetFilePointer(nullptr, 0, nullptr, SEEK_SET), 0xFFFFFFFF);
}

}  // namespace
