// Pack: rebuilding the memo file, and what a pack that fails leaves behind.
#include <numeric>
#include <set>

#include "support.h"

namespace test {
namespace {

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
            const auto mode0640 = static_cast<std::filesystem::perms>(0640);
            std::filesystem::permissions(name, mode0640);
            h->Modified = 0;
            EXPECT_EQ(Pack(h.get(), mode), 1) << kind;
            EXPECT_EQ(h->Modified, 1u);
            EXPECT_EQ(std::filesystem::status(name).permissions(), mode0640);
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

/// As a cipher does it: the bytes on the disk are others than those of the buffer.
int invert(DbfBase* h) {
    for (u32 i = 1; i < h->Header.RecordLength; ++i) h->RecordBuffer[i] ^= 0xFF;
    return 0;
}

TEST(Edit, PackReadsAndWritesEachRecordOnceThroughItsHooks) {
    static std::string calls;
    const TempDir dir;
    // Each step reads and writes for itself: three of the records move in the record step.
    for (const auto& [mode, expected] : {std::pair(2u, "rrrrrwwwww"), {0u, "rrrrrwwwrwrwrwrw"}}) {
        const Table h = withMemos(dir, 0xF5, 1);
        for (u32 i = 0; i < 5; ++i) {
            ReadRecord(h.get(), i);
            invert(h.get());
            WriteRecord(h.get(), i);
        }
        calls.clear();
        h->AfterRead = [](DbfBase* base) { return calls += 'r', invert(base); };
        h->BeforeWrite = [](DbfBase* base) { return calls += 'w', invert(base); };
        EXPECT_EQ(Pack(h.get(), mode), 1);
        EXPECT_EQ(calls, expected);
        EXPECT_EQ(memosOf(h.get()), mode == 2 ? "a1 a1,b1 b30001,c1 c60001,d1 d65535,0 0,"
                                              : "a1 a1,c1 c60001,d1 d65535,0 0,");
    }
}

TEST(Edit, PackLeavesWideTextAndClearsWhatLeadsNowhere) {
    const TempDir dir;
    const std::string wide = "no reference 1", digits = padded("", 9);
    const Table h = openLayout(dir, {0x83,
                                     {{"W", 'W', 14}, {"M", 'M', 10}},
                                     {" " + wide + digits + "1", " " + wide + "   9999999"}});
    const std::string memo = "a\0"s + std::string(70000, 'b') + "\x1A";
    writeAll(h->MemoFileName, padded("\1", 512, 0) + memo + "unused");
    EXPECT_EQ(Pack(h.get(), 2), 1);
    EXPECT_TRUE(readAll(h->MemoFileName) == padded("\x8A", 512, 0) + memo) << "zeros included";
    for (const char* last : {"1", " "}) {
        ReadRecord(h.get(), *last == ' ');
        EXPECT_EQ(recordOf(h.get()), " " + wide + digits + last);
    }
}

/// The files of a directory and what they hold.
std::string filesOf(const TempDir& dir) {
    std::set<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(dir.file("")))
        files.insert(entry.path().string() + '=' + readAll(entry.path().string()) + '\n');
    return std::accumulate(files.begin(), files.end(), std::string());
}

TEST(Edit, PackThatFailsCanBeCalledAgain) {
    const std::string memos = "a1 a1,b1 b30001,c1 c60001,d1 d65535,0 0,";
    for (const u32 kind : {0u, 3u}) {
        const TempDir dir;
        const Table h = withMemos(dir, kind == 0 ? 0x83 : 0x30, kind);
        const std::string before = filesOf(dir);
        for (const u32 mode : {2u, 0u}) {
            const FileSizeLimit noRoom(150000);
            EXPECT_EQ(Pack(h.get(), mode), 0);
            EXPECT_TRUE(filesOf(dir) == before);
        }
        h->Reverse = 1;
        h->AfterRead = [](DbfBase* base) -> int {
            if (base->RecordBuffer[1 + GetLenField(base, 0)] != 0) throw 1;
            return 0;
        };
        EXPECT_THROW(Pack(h.get(), 0), int);
        EXPECT_TRUE(filesOf(dir) == before);
        EXPECT_EQ(h->UseFilterIndex + h->Reverse, 2);
        h->Reverse = 0;
        h->AfterRead = nullptr;
        EXPECT_EQ(Pack(h.get(), 2), 1);
        EXPECT_EQ(memosOf(h.get()), memos);
    }
}

TEST(Edit, PackLeavesMemosThatCannotBeTold) {
    for (const u32 kind : {2u, 3u, 4u}) {
        const TempDir dir;
        const u8 version = kind == 2 ? 0x8B : kind == 3 ? 0x30 : 0xE5;
        const Table h = withMemos(dir, version, kind);
        const std::string name = h->MemoFileName, file = readAll(name);
        overwrite(name, std::string(64, 0));
        const std::string before = filesOf(dir);
        for (const u32 mode : {0u, 2u}) EXPECT_EQ(Pack(h.get(), mode), 0) << "blocks of 0 bytes";
        ReadRecord(h.get(), 0);
        EXPECT_EQ(memoOf(h.get()), std::nullopt);
        EXPECT_EQ(SetMemo(h.get(), 0, "x") + static_cast<int>(GetBlockSize(h.get())), 0);
        EXPECT_TRUE(filesOf(dir) == before);
        EXPECT_EQ(Zap(h.get()) + Pack(h.get(), 2), 2);
        EXPECT_EQ(GetBlockSize(h.get()), 512u);
        EXPECT_EQ(readAll(name).size(), 512u);
    }
    // Another table has taken the name of the one that is open.
    const TempDir dir, other;
    const Table h = withMemos(dir, 0x83, 0), next = withMemos(other, 0x83, 0);
    std::filesystem::rename(next->FileName, h->FileName);
    const std::string before = filesOf(dir);
    for (const u32 mode : {0u, 1u, 2u}) EXPECT_EQ(Pack(h.get(), mode), 0);
    EXPECT_TRUE(filesOf(dir) == before);
}

/// Three records of 4005 bytes with the memos a, b and c; the packing of their memo file has come
/// to the second one, whose reference was 256 and becomes 9.
class Interrupted : public testing::Test {
protected:
    Interrupted() {
        Layout layout{0x30, {{"F", 'C', 160, 15}, {"M", 'M', 4}}, {}};
        for (const char* start : {" a", "*x", " b", " c"})
            layout.records.push_back(padded(start, 4001) + "\0\0\0\0"s);
        h = openLayout(dir, layout);
        looked.reset(OpenBase(h->FileName));
        CreateMemoFile(h->FileName, 3, 64);
        const int unused[] = {8, 1, 64 * 245 - 8, 8};
        for (u32 i = 0; i < 4; ++i) {
            ReadRecord(h.get(), i);
            SetMemo(h.get(), 1, std::string(static_cast<std::size_t>(unused[i]), '-').c_str());
            if (i != 1) SetMemo(h.get(), 1, std::string(1, "a-bc"[i]).c_str());
            WriteRecord(h.get(), i);
        }
        before = readAll(name = h->MemoFileName);
        EXPECT_EQ(Pack(h.get(), 1), 1);
        EXPECT_EQ(RefreshDatabase(looked.get()) + IsPackUnfinished(looked.get()), 1);
        const FileSizeLimit oneRecord(5000);  // no more of the table can be written
        EXPECT_EQ(Pack(h.get(), 2), 0);
    }

    /// The memos of the records, "-" for null.
    std::string memos() const {
        std::string all;
        for (u32 i = 0; i < 3 && ReadRecord(looked.get(), i) != 0; ++i)
            all += memoOf(looked.get(), 1).value_or("-");
        return all;
    }

    TempDir dir;
    Table h, looked;  // one has looked for a log before
    std::string name, before;
};

TEST_F(Interrupted, PackIsFinishedByTheNext) {
    const std::string oldName = std::string(name).replace(name.size() - 3, 1, "~");
    EXPECT_TRUE(readAll(oldName) == before) << "whole";
    EXPECT_EQ(memos(), "---") << "rather than another's text";
    const std::string left = readAll(name);
    for (const std::size_t place : {std::size_t{56}, left.size() - 1}) {  // the checksum, the log
        writeAll(name, std::string(left).replace(place, 1, 1, static_cast<char>(left[place] ^ 1)));
        EXPECT_EQ(Pack(h.get(), 2), 0) << "damaged at " << place;
        EXPECT_EQ(memos(), "---");
    }
    writeAll(name, left);
    std::filesystem::remove(oldName);  // the new memo file alone tells
    EXPECT_EQ(Pack(Table(OpenBase(h->FileName)).get(), 2), 1);
    EXPECT_EQ(memos(), "abc");
    EXPECT_EQ(Pack(h.get(), 2), 1);
    EXPECT_EQ(readAll(name).size(), 512u + 2 * 64 + 9) << "nothing unused";
}

TEST_F(Interrupted, PackLetsNoReferenceIntoAnotherRecord) {
    const auto refusesAll = [&](DbfBase* t) {
        EXPECT_EQ(ReadRecord(t, 0), 1);
        EXPECT_EQ(SetMemo(t, 1, "x") + Delete(t, 0) + Insert(t, 0, 1) + Truncate(t, 1), 0);
        EXPECT_EQ(AppendBlank(t, 0) + WriteRecord(t, 1) + WriteField(t, 1, 1), 0);
        EXPECT_EQ(static_cast<int>(GetBlockSize(t)) + Zap(t), 0);
        return reccount(t) == 3;
    };
    const Table fresh(OpenBase(h->FileName));
    for (DbfBase* const t : {h.get(), looked.get(), fresh.get()}) {
        EXPECT_EQ(IsPackUnfinished(t), 1);
        EXPECT_TRUE(refusesAll(t));
    }
    // What cannot be looked for counts as there, what is missing or too short has no log.
    const std::string aside = dir.file("aside");
    std::filesystem::rename(name, aside);
    EXPECT_EQ(IsPackUnfinished(looked.get()), 0);
    std::filesystem::create_symlink(name, name);
    EXPECT_EQ(IsPackUnfinished(looked.get()), -1);
    EXPECT_TRUE(refusesAll(looked.get()));
    EXPECT_EQ(Pack(looked.get(), 1), 0);
    std::filesystem::remove(name);
    writeAll(name, readAll(aside).substr(0, 63));
    EXPECT_EQ(IsPackUnfinished(looked.get()), 0);
    std::filesystem::rename(aside, name);
    // Fields beside the reference, and no reference at all, can be written.
    for (const bool cleared : {false, true}) {
        ReadRecord(looked.get(), 1);
        SetString(looked.get(), 0, "B");
        if (cleared) ClearField(looked.get(), 1);
        EXPECT_EQ(WriteRecord(looked.get(), 1), 1);
    }
    EXPECT_EQ(AppendBlank(looked.get(), 0), 1);
    RefreshDatabase(h.get());
    EXPECT_EQ(Pack(h.get(), 2), 1);
    EXPECT_EQ(memos(), "a-c") << "what is cleared stays cleared";
}

TEST(Edit, PackNeedsRoomForItsLog) {
    const TempDir dir;
    const Layout model{0x03, {{"F", 'C', 232, 3}}, {}};  // 1000 characters
    for (const bool oneByOne : {false, true}) {
        Layout layout = model;
        for (const char* start : {"*a", " b", " c", " d"})
            layout.records.push_back(padded(start, 1001, start[1]));
        const Table h = openLayout(dir, layout);
        if (oneByOne) h->BeforeWrite = [](DbfBase*) { return 0; };
        const std::string before = readAll(h->FileName);
        for (const rlim_t more : {1U, 1001U, 3003U, 9600U}) {
            const FileSizeLimit limit(before.size() + more);
            EXPECT_EQ(Pack(h.get(), 1), 0);
            EXPECT_TRUE(readAll(h->FileName) == before) << more;
        }
        EXPECT_EQ(IsPackUnfinished(h.get()), 0);
        EXPECT_EQ(Pack(h.get(), 1), 1);
        EXPECT_EQ(reccount(h.get()), 3u);
        EXPECT_EQ(readAll(h->FileName).size(), before.size() - 1001);
    }
}

TEST(Edit, PackTakesNoNameThatIsNeeded) {
    const TempDir dir;
    const Table h = openLayout(dir, {0x83, {{"M", 'M', 10}}, {padded("", 10) + '1'}}, "t.~bt");
    CreateMemoFile(h->FileName, 0, 0);
    const std::string before = filesOf(dir);
    EXPECT_EQ(Pack(h.get(), 2), 1) << "the table has the name of the old memo file";
    EXPECT_TRUE(filesOf(dir) == before);
    std::filesystem::remove(h->MemoFileName);
    std::filesystem::create_hard_link(h->FileName, h->MemoFileName);
    EXPECT_EQ(Pack(h.get(), 2), 0) << "the memo file is the table";
    EXPECT_EQ(ReadRecord(h.get(), 0) + SetMemo(h.get(), 0, "x"), 1);
    EXPECT_EQ(CreateMemoFile(h->FileName, 0, 0), 0);
    EXPECT_EQ(readAll(h->FileName).size(), 65u + 11 + 1);
}

TEST(Edit, PackOfAReadOnlyTable) {
    const TempDir dir;
    const Layout plain{0x03, {{"F", 'C', 1}}, {" a", " b"}};
    const Layout memos{0x83, {{"M", 'M', 10}}, {padded("", 11), padded("*", 11)}};
    const Table a(OpenBaseRO(openLayout(dir, plain)->FileName));
    const Table b(OpenBaseRO(openLayout(dir, memos, "m.dbf")->FileName));
    CreateMemoFile(b->FileName, 0, 0);
    a->BackupEnabled = b->BackupEnabled = 1;
    const std::string before = filesOf(dir);
    for (const u32 mode : {0u, 1u, 2u, 3u}) {
        EXPECT_EQ(Pack(a.get(), mode), 1) << "nothing to write";
        EXPECT_EQ(Pack(b.get(), mode), mode == 3) << mode;
    }
    EXPECT_TRUE(filesOf(dir) == before);
}

}  // namespace
}  // namespace test
