// Handles beside other handles and programs, hooks that do more than look, and the ends: of a file,
// of a handle.
#include "support.h"

namespace {

using namespace mira;
using namespace test;

Layout numbered(unsigned count) {
    Layout layout{0x03, {{"NO", 'C', 3}, {"REST", 'C', 300, 1}}, {}};
    for (unsigned i = 0; i < count; ++i)
        layout.records.push_back(padded(" " + std::to_string(100 + i), 304));
    return layout;
}

std::string at(DbfBase* h, u32 position) {
    return ReadRecord(h, position) != 0 ? GetStr(h, 0) : "failed";
}

TEST(Handle, WhoLooksAgainSeesTheFile) {
    const TempDir dir;
    Layout layout = numbered(9);
    const Table h = openLayout(dir, layout);
    std::filesystem::create_hard_link(dir.file("t.dbf"), dir.file("l.dbf"));
    const Table other(OpenBase(dir.file("l.dbf").c_str()));
    EXPECT_EQ(at(h.get(), 0) + at(h.get(), 1) + at(h.get(), 2), "100101102");
    layout.records[1] = layout.records[2] = padded(" new", 304);
    layout.records[5][0] = '*';
    overwrite(dir.file("t.dbf"), layout.bytes());
    EXPECT_EQ(at(h.get(), 2) + at(h.get(), 1), "newnew") << "the same again, and back";
    EXPECT_EQ(at(h.get(), 3) + at(h.get(), 4), "103104");
    EXPECT_EQ(RecallRecord(h.get(), 5), 1);
    EXPECT_EQ(readAll(dir.file("t.dbf"))[32 + 64 + 1 + 5 * 304], ' ') << "looks at the file";
    ReadRecord(other.get(), 0);
    EXPECT_EQ(WriteRecord(other.get(), 6), 1);
    EXPECT_EQ(at(h.get(), 6), "100") << "through the other name of the file";
    EXPECT_EQ(Delete(other.get(), 0), 1);
    EXPECT_EQ(at(h.get(), 7) + at(h.get(), 8), "108failed");
}

/// Every edit that takes more than one write.
const std::pair<const char*, int (*)(DbfBase*)> kEdits[] = {
    {"append", [](DbfBase* h) { return AppendBlank(h, 1); }},
    {"insert", [](DbfBase* h) { return Insert(h, 1, 1); }},
    {"delete", [](DbfBase* h) { return Delete(h, 1); }},
    {"truncate", [](DbfBase* h) { return Truncate(h, 1); }},
    {"zap", Zap},
    {"pack", [](DbfBase* h) { return Pack(h, 0); }}};

TEST(Handle, EditsLeaveAloneWhatAnotherProgramHasChanged) {
    enum Change { Appended, Cut, Removed, Replaced };
    for (const auto& [name, edit] : kEdits) {
        for (const Change change : {Appended, Cut, Removed, Replaced}) {
            const TempDir dir;
            const std::string path = dir.file("t.dbf");
            const Table h = openLayout(dir, numbered(4));
            h->BackupEnabled = 1;
            if (change == Appended) AppendBlank(Table(OpenBase(path.c_str())).get(), 1);
            if (change == Cut) std::filesystem::resize_file(path, 97 + 2 * 304);
            if (change >= Removed) std::filesystem::rename(path, dir.file("old.dbf"));
            if (change == Replaced) writeAll(path, numbered(4).bytes());
            const std::string before = readAll(path);
            const bool leadsNowhere = change == Removed;
            EXPECT_EQ(edit(h.get()), leadsNowhere) << name << change;
            if (leadsNowhere) continue;
            EXPECT_EQ(readAll(path), before) << name << change;
            EXPECT_FALSE(std::filesystem::exists(dir.file("t.bak"))) << name << change;
            EXPECT_EQ(RefreshDatabase(h.get()), change != Replaced);
            EXPECT_EQ(edit(h.get()), change != Replaced) << name << change;
        }
    }
}

TEST(Handle, ABackupThatFailedIsNotTriedAgainAmidAnEdit) {
    for (const bool insert : {false, true}) {
        const TempDir dir;
        Layout layout = numbered(4);
        layout.records[0][0] = '*';
        const Table h = openLayout(dir, layout);
        std::free(h->BackupName);
        h->BackupName = strdup(dir.file("missing/t.bak").c_str());
        h->BackupEnabled = 1;
        h->BeforeWrite = [](DbfBase* base) {
            base->BeforeWrite = nullptr;
            std::filesystem::create_directory(
                std::filesystem::path(base->BackupName).parent_path());
            return WriteRecord(base, 1);
        };
        EXPECT_EQ(insert ? Insert(h.get(), 1, 1) : Pack(h.get(), 1), 1);
        EXPECT_FALSE(std::filesystem::exists(h->BackupName)) << "of a table half edited";
        EXPECT_EQ(h->BackupDone, 0);
        EXPECT_EQ(InverseRecord(h.get(), 0), 1);
        EXPECT_EQ(h->BackupDone, 1);
    }
}

TEST(Handle, AnExceptionOfAHookPutsOptionsBack) {
    const RecordHook thrower = [](DbfBase*) -> int { throw std::bad_alloc(); };
    const std::pair<const char*, int (*)(DbfBase*)> calls[] = {
        kEdits[0],
        kEdits[1],
        kEdits[5],
        {"sort", [](DbfBase* h) { return SortBase(h, "REST", [] { return 0; }); }},
        {"filter",
         [](DbfBase* h) { return set_filter(h, "NO>\"102\"", nullptr) != nullptr ? 1 : 0; }}};
    for (const auto& [name, call] : calls) {
        const TempDir dir;
        const Table h = openLayout(dir, numbered(9));
        if (name == "sort"s || name == "filter"s) SortBase(h.get(), "NO", nullptr);
        const u32* const order = h->SortOrder;
        h->DateFormat = 3;
        h->Reverse = name != "insert"s && order == nullptr;
        const i32 reverse = h->Reverse;
        h->AfterRead = h->BeforeWrite = thrower;
        EXPECT_THROW(call(h.get()), std::bad_alloc) << name;
        EXPECT_EQ(h->UseFilterIndex, 1) << name;
        EXPECT_EQ(h->DateFormat, 3) << name;
        EXPECT_EQ(h->Reverse, reverse) << name;
        EXPECT_TRUE(h->SortCallback == nullptr && h->SortKeyA == nullptr) << name;
        EXPECT_TRUE(h->FilterState == nullptr && h->SortOrder == order) << name;
        EXPECT_EQ(h->FilterText, nullptr) << name;
        EXPECT_EQ(readAll(h->FileName), numbered(9).bytes()) << name;
        EXPECT_EQ(h->Header.RecordCount, 9u) << name;
    }
}

TEST(Handle, HooksMayChangeTheFieldThatIsCalculated) {
    static DbfBase* h;
    static int act;
    const TempDir dir;
    const Table table = openLayout(dir, numbered(3));
    h = table.get();
    h->OemConvert = 1;
    ReadRecord(h, 1);
    for (act = 0; act < 4; ++act) {
        GetMemCalcField(h);
        AddCalcField(h, "X", "NO-NO+a long literal behind the values-NO");
        const std::string expected = str(GetCalcString(h, "X"));
        h->CharToOemCallback = [](const char*, char*, u32) {
            if (act == 0) DelCalcField(h, "X");
            if (act == 1) FreeMemCalcField(h);
            if (act == 2) GetMemCalcField(h);
            if (act == 3) DelCalcField(h, "X"), AddCalcField(h, "X", "REST"), if_digit_calc(h, "X");
            return 0;
        };
        EXPECT_EQ(str(GetCalcString(h, "X")), expected) << act;
        h->CharToOemCallback = nullptr;
        FreeMemCalcField(h);
    }
}

TEST(Handle, LocalTimeFollowsTheZone) {
    const TempDir dir;
    const Table h = openLayout(dir, {0x03, {{"AT", 'T', 14}}, {}});
    std::string found;
    for (const char* zone : {"AAA0", "AAA0", "BBB-9"}) {
        setenv("TZ", zone, 1);
        SetDateTimeI(h.get(), 0, 1700000000);
        found += std::string(GetStr(h.get(), 0)).substr(8, 2) + ' ';
        setenv("TZ", "CCC5", 1);
        tzset();  // what the application does
    }
    unsetenv("TZ");
    tzset();
    EXPECT_EQ(found, "22 22 07 ");
}

TEST(Handle, AnAppendedRecordJoinsTheViewThatAHookHasMade) {
    static void (*hook)(DbfBase*);
    const std::tuple<const char*, void (*)(DbfBase*), u32> cases[] = {
        {"sorts", [](DbfBase* h) { SortBase(h, "NO", nullptr); }, 7},
        {"filters", [](DbfBase* h) { set_filter(h, "NO>\"103\"", nullptr); }, 3},
        {"clears", [](DbfBase* h) { ClearAllFilter(h); }, 10},
        {"appends", [](DbfBase* h) { AppendBlank(h, 0); }, 8},
        {"cuts", [](DbfBase* h) { ClearAllFilter(h), Truncate(h, 2); }, 3}};
    for (const auto& [name, act, count] : cases) {
        const TempDir dir;
        const Table h = openLayout(dir, numbered(9));
        set_filter(h.get(), "NO>\"102\"", nullptr);
        SortBase(h.get(), "REST", nullptr);
        hook = act;
        h->BeforeWrite = [](DbfBase* base) {
            base->BeforeWrite = nullptr;
            hook(base);
            ClearRecord(base);
            SetString(base, 0, "new");
            return 0;
        };
        EXPECT_EQ(AppendBlank(h.get(), 1), 1) << name;
        EXPECT_EQ(reccount(h.get()), count) << name;
        EXPECT_EQ(at(h.get(), count - 1), "new") << name;
        EXPECT_EQ((readAll(h->FileName).size() - 97 - 1) / 304, h->Header.RecordCount) << name;
    }
}

TEST(Handle, AHookOfInsertAppendsAfterTheRecordsThatAreMoved) {
    const TempDir dir;
    const Table h = openLayout(dir, numbered(3));
    h->BeforeWrite = [](DbfBase* base) {
        base->BeforeWrite = nullptr;
        return AppendBlank(base, 0);
    };
    EXPECT_EQ(Insert(h.get(), 1, 1), 1);
    std::string all;
    for (u32 i = 0; i < reccount(h.get()); ++i) all += at(h.get(), i) + ' ';
    EXPECT_EQ(all, "100     101 102     ");
}

TEST(Handle, ATableEndsBefore2GiB) {
    const TempDir dir;
    const Table h = openLayout(dir, {0x03, {{"A", 'C', 154, 3}}, {}});  // 923 bytes from 65 on
    const u32 last = 2326633;                                           // ends at 2^31 - 401
    std::filesystem::resize_file(h->FileName, 65 + u64{last} * 923);
    EXPECT_EQ(RefreshDatabase(h.get()), 1);
    for (const u32 past : {last + 1, 0xFFFFFFFEu}) {
        EXPECT_EQ(WriteRecord(h.get(), past) + WriteByte(h.get(), past), 0);
        EXPECT_EQ(WriteField(h.get(), past, 0) + InternalWriteRecord(h.get(), past), 0);
    }
    EXPECT_EQ(h->Modified, 0u);
    EXPECT_EQ(AppendBlank(h.get(), 1), 1);
    EXPECT_EQ(AppendBlank(h.get(), 1) + Insert(h.get(), last, 1), 0);
    EXPECT_EQ(reccount(h.get()), last + 1);
    EXPECT_EQ(GetRecord(h.get(), 0xFFFFFFFF), 0);
    EXPECT_EQ(Delete(h.get(), last), 1) << "a full table can lose its last record";
}

TEST(Handle, NothingWorksAfterCloseFile) {
    const TempDir dir;
    const Table table = openLayout(dir, numbered(3));
    DbfBase* const h = table.get();
    EXPECT_EQ(GetRecord(h, 0) + DupRecord(h), 2);
    Close_File(h);
    int (*const onPosition[])(DbfBase*, u32) = {
        SeekRecord, InternalSeekRecord,  ReadRecord,  GetRecord,    ReadByte,
        WriteByte,  InternalWriteRecord, WriteRecord, DeleteRecord, RecallRecord,
        Delete,     InverseRecord,       Truncate,    Pack};
    for (const auto call : onPosition) {
        for (const u32 position : {0u, 3u}) EXPECT_EQ(call(h, position), 0);
    }
    for (const auto call : {SeekField, ReadField, WriteField}) EXPECT_EQ(call(h, 0, 0), 0);
    for (const auto call : {RefreshDatabase, WriteHeader, DupRecord, Zap}) EXPECT_EQ(call(h), 0);
    for (const char flag : {'\0', '\1'}) {
        EXPECT_EQ(AppendBlank(h, flag) + Insert(h, 0, flag) + MakeBakFile(h, flag), 0);
    }
    EXPECT_EQ(reccount(h) + recno(h, 1) + GetOrder(h, 1) + fieldcount(h), 0u);
    DupToRecord(h);
    EXPECT_EQ(fieldno(h, 0), 0);
    EXPECT_STREQ(GetFieldName(h, 0), "NO") << "but what is known of the fields stays";
}

void useOwnRecord(const char* path, std::FILE* file) {
    const auto own = std::make_unique<DbfBase>();
    DbfBase* const h = own.get();
    SetDefOptions(h);
    h->TableFile = file;
    EXPECT_EQ(ReadHeader(h), 1);
    h->FileName = strdup(path);
    EXPECT_EQ(ReadFields(h), 1);
    std::string all;
    for (u32 i = 0; i < reccount(h); ++i) all += at(h, i);
    EXPECT_EQ(all, "100101102103104105106107108");
    EXPECT_EQ(ReadRecord(h, 0) + GetMemCalcField(h) + AddCalcField(h, "X", "NO!"), 3);
    for (const char* text : {"100!", "(null)"}) {
        EXPECT_EQ(str(GetCalcString(h, "X")), text);
        DelCalcField(h, "X");
    }
    FreeMemCalcField(h);
    ReadRecord(h, 8);
    EXPECT_EQ(WriteRecord(h, 0) + Delete(h, 1) + Insert(h, 1, 0) + AppendBlank(h, 0), 4);
    EXPECT_EQ(SortBase(h, "NO", nullptr), 1);
    EXPECT_EQ(at(h, 9) + at(h, 0), "108102");
    ClearAllFilter(h);
    Close_File(h);
    std::free(h->FileName);
}

TEST(Handle, ACallersOwnRecordNeedsNoPrivateState) {
    for (const bool buffered : {false, true}) {
        const TempDir dir;
        const std::string path = dir.file("t.dbf");
        openLayout(dir, numbered(9));
        SCOPED_TRACE(buffered);
        useOwnRecord(path.c_str(),
                     buffered ? std::fopen(path.c_str(), "rb+") : Open_File(path.c_str()));
    }
}

}  // namespace
