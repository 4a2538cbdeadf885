// Structural edits, checked against a model of the table that lives in the test.
#include <functional>
#include <random>
#include <utility>

#include "support.h"

namespace {

using namespace mira;
using namespace test;

Layout numbered(unsigned count, unsigned length) {
    Layout layout{0x03, {{"F", 'C', length % 256, length / 256}}, {}};
    for (unsigned i = 0; i < count; ++i) {
        layout.records.push_back(
            padded((i % 3 == 1 ? '*' : ' ') + std::to_string(i), length + 1, '.'));
    }
    return layout;
}

void dropDeleted(std::vector<std::string>* records) {
    std::erase_if(*records, [](const std::string& r) { return r[0] == '*'; });
}

/// Does one random edit to table and model; true when the header is written.
bool editBoth(DbfBase* h, std::vector<std::string>* records, const std::function<u32(u32)>& below) {
    const auto count = static_cast<u32>(records->size());
    const u32 at = below(4) == 0 ? count : below(count + 1);
    const u32 what = below(at < count ? 8 : 3);
    if (what >= 5) {
        char& flag = (*records)[at][0];
        const bool deleted = flag == '*';
        EXPECT_EQ((what == 5 ? DeleteRecord : what == 6 ? RecallRecord : InverseRecord)(h, at), 1);
        if (what != 6 && !deleted) flag = '*';
        if (what != 5 && deleted) flag = ' ';
        return false;
    }
    switch (what) {
        case 0:
            EXPECT_EQ(Pack(h, below(2)), 1);
            dropDeleted(records);
            return records->size() != count;
        case 1:
            if (at < count / 2) return false;
            EXPECT_EQ(Truncate(h, at), 1);
            records->resize(at);
            return true;
        case 2:
        case 3: {
            h->RecordBuffer[0] = '?';
            const bool blank = below(2) == 0 || records->empty();
            h->Reverse = at < count && below(3) == 0 ? 1 : 0;
            EXPECT_EQ(Insert(h, h->Reverse != 0 ? count - 1 - at : at, blank ? 1 : 0), 1);
            h->Reverse = 0;
            const char* record = reinterpret_cast<char*>(h->RecordBuffer);
            records->emplace(records->begin() + at, record, h->Header.RecordLength);
            EXPECT_EQ(*record, blank ? ' ' : '?');
            return true;
        }
        default:
            EXPECT_EQ(Delete(h, at), 1);
            records->erase(records->begin() + at);
            return true;
    }
}

TEST(Edit, FollowsTheModel) {
    std::mt19937 random(5);
    for (const unsigned length : {1u, 9u, 1000u, 60000u}) {
        const TempDir dir;
        Layout model = numbered(std::max(9u, 400000 / (length + 99)), length);
        const Table h = openLayout(dir, model);
        std::string date = "\x1A\x0B\x18";
        for (int step = 0; step < 80; ++step) {
            const bool stamps = editBoth(h.get(), &model.records,
                                         [&](u32 n) { return static_cast<u32>(random() % n); });
            if (stamps) date = today();
            ASSERT_TRUE(readAll(h->FileName) == model.bytes().replace(1, 3, date))
                << length << ", step " << step;
        }
        const auto count = static_cast<u32>(model.records.size());
        EXPECT_EQ(DeleteRecord(h.get(), count + 9) + RecallRecord(h.get(), count + 9), 2);
        EXPECT_EQ(InverseRecord(h.get(), count + 9), 0);
        EXPECT_EQ(Truncate(h.get(), count + 2), 1) << "lengthens";
        model.records.push_back(padded("\x1A", length + 1, 0));
        model.records.emplace_back(length + 1, '\0');
        EXPECT_TRUE(readAll(h->FileName) == model.bytes().replace(1, 3, today()));
        EXPECT_EQ(Zap(h.get()), 1);
        model.records.clear();
        EXPECT_EQ(readAll(h->FileName), model.bytes().replace(1, 3, today()));
    }
}

TEST(Edit, PackWritesTheSameGatheredOrOneByOne) {
    static std::string log;
    for (const unsigned length : {3u, 700u, 65000u}) {
        for (const bool hooks : {false, true}) {
            const TempDir dir;
            Layout model = numbered(length == 700 ? 1000 : 12, length);
            const Table h = openLayout(dir, model);
            log.clear();
            if (hooks) {
                h->AfterRead = [](DbfBase*) { return log += 'r', 0; };
                h->BeforeWrite = [](DbfBase*) { return log += 'w', 0; };
            }
            h->BackupEnabled = h->Reverse = 1;
            EXPECT_EQ(Pack(h.get(), 1), 1);
            EXPECT_EQ(h->Reverse, 1);
            EXPECT_EQ(log.substr(0, 6), hooks ? "rrrwrw" : "");
            EXPECT_TRUE(readAll(h->BackupName) == model.bytes());
            dropDeleted(&model.records);
            EXPECT_TRUE(readAll(h->FileName) == model.bytes().replace(1, 3, today()));
        }
    }
}

TEST(Edit, RefusesInsteadOfGuessing) {
    const TempDir dir;
    const Layout layout = numbered(4, 5);
    const Table h = openLayout(dir, layout), readOnly(OpenBaseRO(h->FileName));
    EXPECT_EQ(Delete(h.get(), 4) + Insert(h.get(), 5, 1), 0);
    EXPECT_EQ(Pack(h.get(), 3) + Pack(h.get(), 2), 2);
    h->Reverse = 1;
    EXPECT_EQ(Insert(h.get(), 4, 1) + Delete(h.get(), 0) + Truncate(h.get(), 1) + Zap(h.get()), 0);
    h->Reverse = 0;
    const auto tryAll = [](DbfBase* base) {
        return Delete(base, 0) + Insert(base, 0, 1) + Truncate(base, 1) + Pack(base, 0);
    };
    for (u32** view : {&h->SortOrder, &h->FilterIndex}) {
        *view = static_cast<u32*>(std::calloc(4, sizeof(u32)));
        EXPECT_EQ(tryAll(h.get()), 0);
        std::free(std::exchange(*view, nullptr));
    }
    EXPECT_EQ(tryAll(readOnly.get()), 0);
    EXPECT_EQ(readOnly->Header.RecordCount, 4u);
    EXPECT_EQ(readAll(h->FileName), layout.bytes());
}

/// Six records of two memo fields; the second is deleted, the last has no memos. The memos of
/// record i are its digit, and in the second field 90 * i times "x" behind it.
Table withMemos(const TempDir& dir, int version, u32 kind, const std::string& name = "t.dbf") {
    const unsigned length = version == 0x30 ? 4 : 10;
    Layout layout{static_cast<u8>(version), {{"A", 'M', length}, {"B", 'G', length}}, {}};
    layout.records.resize(6, padded("", 1 + 2 * length, kind < 3 ? ' ' : '\0'));
    layout.records[1][0] = '*';
    Table h = openLayout(dir, layout, name);
    CreateMemoFile(h->FileName, kind, 64);
    for (u32 i = 0; i < 5; ++i) {
        ReadRecord(h.get(), i);
        for (u32 f = 0; f < 2; ++f) {
            SetMemo(h.get(), f, "unused");
            SetMemo(h.get(), f, (std::to_string(i) + std::string(90 * i * f, 'x')).c_str());
        }
        WriteRecord(h.get(), i);
    }
    return h;
}

/// All memos, those of a record between commas, its x counted.
std::string memosOf(DbfBase* h) {
    std::string all;
    for (u32 i = 0; i < reccount(h); ++i) {
        ReadRecord(h, i);
        for (i32 f = 0; f < 2; ++f) {
            u32 length = 0;
            char* memo = GetMemoBuf(h, f, &length);
            if (length != 0) all += *memo + std::to_string(length - 1);
            std::free(memo);
            all += f == 0 ? ' ' : ',';
        }
    }
    return all;
}

constexpr std::pair<int, u32> kMemoTables[] = {{0x83, 0}, {0x8B, 2}, {0x30, 3}, {0xE5, 4}};

std::string oldName(const DbfBase* h) {
    std::string name = h->MemoFileName;
    name[name.size() - 3] = '~';
    return name;
}

TEST(Edit, PackRebuildsTheMemoFile) {
    for (const auto& [version, kind] : kMemoTables) {
        for (const u32 mode : {0u, 2u, 1u}) {
            SCOPED_TRACE(testing::Message() << kind << ", mode " << mode);
            const TempDir dir;
            const Table h = withMemos(dir, version, kind);
            const std::string name = h->MemoFileName, before = readAll(name);
            writeAll(oldName(h.get()), "older");
            EXPECT_EQ(Pack(h.get(), mode), 1);
            EXPECT_EQ(h->MemoFileName, name);
            EXPECT_EQ(memosOf(h.get()), mode == 2 ? "00 00,10 190,20 2180,30 3270,40 4360, ,"
                                                  : "00 00,20 2180,30 3270,40 4360, ,");
            EXPECT_EQ(readAll(oldName(h.get())), mode == 1 ? "older" : before);
            EXPECT_EQ(readAll(name).size() < before.size() - 64, mode != 1) << "nothing unused";
            std::filesystem::remove(name);
            EXPECT_EQ(Pack(h.get(), 2), 1);
            EXPECT_EQ(readAll(oldName(h.get())), mode == 1 ? "older" : before) << "stays";
        }
        const TempDir dir;
        const Table h = withMemos(dir, version, kind);
        const std::string before = readAll(h->MemoFileName);
        const FileSizeLimit limit(kind == 0 ? 1100 : 700);
        EXPECT_EQ(Pack(h.get(), 2), 0) << "no room for the memos";
        EXPECT_EQ(memosOf(h.get()).substr(0, 5), "00 00");
        EXPECT_EQ(memosOf(h.get()).substr(memosOf(h.get()).size() - 4), " , ,") << "cleared";
        EXPECT_EQ(readAll(oldName(h.get())), before);
    }
}

TEST(Edit, PackFollowsTheLetterCaseOfTheMemoFile) {
    const TempDir dir;
    Table h = withMemos(dir, 0xF5, 1, "customer.dbf");
    std::filesystem::rename(dir.file("customer.fpt"), dir.file("CUSTOMER.FPT"));
    h.reset(OpenBase(dir.file("customer.dbf").c_str()));
    EXPECT_EQ(Pack(h.get(), 0), 1);
    EXPECT_EQ(h->MemoFileName, dir.file("customer.fpt"));
    EXPECT_TRUE(std::filesystem::exists(dir.file("CUSTOMER.~PT")));
    EXPECT_EQ(memosOf(h.get()), "00 00,20 2180,30 3270,40 4360, ,");
    h->Header.Version = 0xFB;
    const std::string bytes = readAll(h->FileName);
    EXPECT_EQ(Pack(h.get(), 0), 1);
    EXPECT_EQ(readAll(h->FileName), bytes) << "no memo format, nothing to rebuild";
}

TEST(Edit, PackKeepsLongMemosWhole) {
    const TempDir dir;
    const Table h = withMemos(dir, 0x83, 0);
    const std::string text(300000, 'y');
    EXPECT_EQ(ReadRecord(h.get(), 5) + SetMemo(h.get(), 0, text.c_str()) + WriteRecord(h.get(), 5),
              3);
    EXPECT_EQ(Pack(h.get(), 0), 1);
    EXPECT_NE(readAll(h->MemoFileName).find(text + '\x1A'), std::string::npos);
}

}  // namespace
