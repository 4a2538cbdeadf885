// Structural edits, checked against a model of the table that lives in the test.
#include "support.h"

namespace {

using namespace mira;
using namespace test;

Layout numbered(unsigned count, unsigned width) {
    Layout layout{0x03, {{"F", 'C', width % 256, width / 256}}, {}};
    for (unsigned i = 0; i < count; ++i) {
        layout.records.push_back(padded(" * "[i % 3] + std::to_string(i), width + 1, '.'));
    }
    return layout;
}

TEST(Edit, MovesRecordsOfEverySize) {
    for (const unsigned length : {1u, 1000u, 60000u}) {
        const TempDir dir;
        Layout model = numbered(std::max(9u, 400000 / (length + 99)), length);
        const Table h = openLayout(dir, model);
        for (u32 step = 0; step < 20; ++step) {
            const u32 at = step * 7 % reccount(h.get());
            EXPECT_EQ(step % 2 == 0 ? Delete(h.get(), at) : Insert(h.get(), at, 0), 1);
            if (step % 2 == 0) {
                model.records.erase(model.records.begin() + at);
            } else {
                model.records.insert(model.records.begin() + at, recordOf(h.get()));
            }
            ASSERT_TRUE(readAll(h->FileName) == model.bytes().replace(1, 3, today())) << step;
        }
    }
}

TEST(Edit, FlagsAndRefusals) {
    const TempDir dir;
    Layout layout = numbered(9, 5);
    const Table h = openLayout(dir, layout);
    for (u32 i = 0; i < 9; ++i) {
        EXPECT_EQ((i < 3 ? DeleteRecord : i < 6 ? RecallRecord : InverseRecord)(h.get(), i), 1);
        layout.records[i][0] = "***   * *"[i];
    }
    h->Reverse = 1;
    EXPECT_EQ(DeleteRecord(h.get(), 99) + RecallRecord(h.get(), 99), 2);
    EXPECT_EQ(Delete(h.get(), 0) + Truncate(h.get(), 1) + Insert(h.get(), 9, 1), 0);
    EXPECT_EQ(readAll(h->FileName), layout.bytes());
}

TEST(Edit, PackWritesTheSameGatheredOrOneByOne) {
    const TempDir dir;
    for (const unsigned length : {3u, 700u, 65000u}) {
        for (const bool oneByOne : {false, true}) {
            Layout model = numbered(length == 700 ? 1000 : 12, length);
            const Table h = openLayout(dir, model);
            if (oneByOne) h->BeforeWrite = [](DbfBase*) { return 0; };
            h->BackupEnabled = h->Reverse = 1;
            EXPECT_EQ(Pack(h.get(), 1), 1);
            EXPECT_TRUE(readAll(h->BackupName) == model.bytes());
            std::erase_if(model.records, [](const std::string& r) { return r[0] == '*'; });
            EXPECT_TRUE(readAll(h->FileName) == model.bytes().replace(1, 3, today()));
        }
    }
}

/// Five records of two memo fields; the second is deleted, the last has no memos. Those of record
/// i are of one character and of 30000 * i more, the second stored twice.
Table withMemos(const TempDir& dir, u8 version, u32 kind) {
    const unsigned length = kind == 3 ? 4 : 10;
    Layout layout{version, {{"A", 'M', length}, {"B", 'G', length}}, {}};
    layout.records.resize(5, padded("", 1 + 2 * length, kind < 3 ? ' ' : '\0'));
    layout.records[1][0] = '*';
    Table h = openLayout(dir, layout);
    CreateMemoFile(h->FileName, kind, 64);
    for (u32 i = 0; i < 4; ++i) {
        ReadRecord(h.get(), i);
        const char letter = static_cast<char>('a' + i);
        for (const u32 field : {0u, 1u, 1u})
            SetMemo(h.get(), field, std::string(30000 * i * field + 1, letter).c_str());
        WriteRecord(h.get(), i);
    }
    return h;
}

/// The first character of every memo, and its length, of which one format reads only 65535.
std::string memosOf(DbfBase* h) {
    std::string all;
    for (u32 i = 0; i < 2 * reccount(h); ++i) {
        ReadRecord(h, i / 2);
        const std::string memo = memoOf(h, i % 2).value_or("").substr(0, 65535);
        all += memo.substr(0, 1) + std::to_string(memo.size()) + (i % 2 == 0 ? ' ' : ',');
    }
    return all;
}

TEST(Edit, PackRebuildsTheMemoFile) {
    const TempDir dir;
    const std::pair<u8, u32> formats[] = {{0x83, 0}, {0x8B, 2}, {0x30, 3}, {0xE5, 4}, {0xF5, 1}};
    for (const auto& [version, kind] : formats) {
        for (const u32 mode : {0u, 2u, 1u}) {
            const Table h = withMemos(dir, version, kind);
            if (kind == 1) std::filesystem::rename(h->MemoFileName, dir.file("T.FPT"));
            GetMemoType(h.get());  // finds that, too
            const std::string name = h->MemoFileName, before = readAll(name);
            const std::string oldName = std::string(name).replace(name.size() - 3, 1, "~");
            writeAll(oldName, "older");
            EXPECT_EQ(Pack(h.get(), mode), 1) << kind;
            EXPECT_EQ(memosOf(h.get()), mode == 2 ? "a1 a1,b1 b30001,c1 c60001,d1 d65535,0 0,"
                                                  : "a1 a1,c1 c60001,d1 d65535,0 0,");
            const std::string after = readAll(h->MemoFileName);
            EXPECT_EQ(after.size() < before.size() - 180000, mode != 1) << "nothing unused";
            EXPECT_NE(after.find(std::string(90001, 'd')), std::string::npos);
            std::filesystem::remove(h->MemoFileName);
            EXPECT_EQ(Pack(h.get(), 2), 1);
            EXPECT_TRUE(readAll(oldName) == (mode == 1 ? "older" : before)) << "stays";
        }
    }
}

}  // namespace
