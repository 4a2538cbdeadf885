// Creating and writing tables, in what is not the matter of the session in fuzz/: whole files,
// hooks, backup copies, the names of memo files.
#include "cases.h"

namespace test {
namespace {

/// The bytes of a new table: without the end-of-file byte.
std::string created(const Layout& layout, std::string_view file) {
    std::string bytes = dated(layout.bytes(), file, true);
    bytes.pop_back();
    return bytes;
}

TEST(Create, WritesEveryFlavourWithEveryType) {
    // Kind, version, type, length given, and what it becomes.
    const std::string name = "A_NAME_OF_THIRTY_TWO_CHARACTERS!";
    const Folder folder;
    for (const auto& row : cases("create")) {
        const u32 kind = static_cast<u32>(std::stoul(row[0]));
        const auto number = [&](std::size_t i) { return static_cast<u32>(std::stoul(row[i])); };
        const char type = row[2][0];
        const Flavour flavour = kind == 7 ? kLevel7 : kPlain;
        const Layout layout{static_cast<u8>(std::stoul(row[1], nullptr, 16)),
                            {{name.substr(0, kind == 7 ? 31 : 10), 'C', 44, 1},
                             {"F", type, number(4) % 256, number(4) / 256}},
                            {},
                            flavour,
                            std::string(kind == 3 ? 263 : 0, '\0')};
        DbfField fields[2] = {};
        CreateField(&fields[0], name.c_str(), 'C', 300);
        CreateField(&fields[1], "F", type, static_cast<int>(number(3)));
        ASSERT_EQ(CreateDatabase(folder.file("t").c_str(), fields, 2, kind, 64, 1), 1);
        const std::string file = readAll(folder.file("t"));
        std::string expected = created(layout, file);
        // Offsets, which many programs leave zero.
        expected.replace(kind == 7 ? 104 : 44, 1, "\1").replace(kind == 7 ? 152 : 76, 2, "\x2D\1");
        if (layout.version == 0x30) expected.replace(28, 2, "\3\3");
        EXPECT_TRUE(same(file, expected)) << kind << ", " << row[2] << row[3];
        EXPECT_EQ(fields[1].Offset, 301);
    }
}

TEST(Create, RefusesWithoutTouchingTheFile) {
    const Folder folder;
    writeAll(folder.file("t"), "kept");
    std::vector<DbfField> fields(2046);
    for (const int count : {-1, 2046, 2}) {  // a header of 65768 bytes, a record of 80001
        if (count == 2) fields[0] = fields[1] = {"F", 'C', 64, 156, 0, 0};
        EXPECT_EQ(CreateDatabase(folder.file("t").c_str(), fields.data(), count, 3, 0, 0), 0);
        EXPECT_EQ(readAll(folder.file("t")), "kept") << count;
        EXPECT_EQ(fields[1].Offset, 0) << count;
    }
    EXPECT_EQ(CreateDatabase(folder.file("t").c_str(), nullptr, 1, 3, 0, 0), 0);
    EXPECT_EQ(readAll(folder.file("t")), "kept");
}

TEST(Create, CopiesTheBackLink) {
    const Folder folder;
    const std::string link = padded("base.dbc", 263, 7), none(263, 0);
    const Layout from{0x30, {{"F", 'C', 5}}, {}, kPlain, link}, plain{0x30, {{"F", 'C', 5}}};
    Layout to{0x30, {{"F", 'C', 5}, {"G", 'L', 1}}, {}, kPlain, none};
    const Table source = openLayout(folder, from, "from"), target = openLayout(folder, to, "to"),
                without = openLayout(folder, plain, "plain");
    WriteBackLink(target.get(), source.get());
    WriteBackLink(source.get(), without.get());
    WriteBackLink(without.get(), source.get());
    to.backLink = link;
    EXPECT_EQ(readAll(folder.file("to")), to.bytes());
    EXPECT_EQ(readAll(folder.file("from")), from.bytes());
    EXPECT_EQ(readAll(folder.file("plain")), plain.bytes());
}

/// More than two of the chunks in which files are copied and records moved.
const Layout kMany{0x03,
                   {{"NAME", 'C', 44, 1}, {"NUM", 'I', 4}},
                   std::vector<std::string>(1000, padded(" one", 305))};

TEST(Write, EachPieceGoesToItsPlaceAfterItsHook) {
    static std::string log;
    log.clear();
    const Folder folder;
    Layout layout = kMany;
    const Table h = openLayout(folder, layout);
    h->BeforeWrite = [](DbfBase* base) {
        log += base->Modified != 0 ? "late" : "record";
        base->RecordBuffer[2] = 'H';
        return SeekRecord(base, 2);  // where a hook leaves the file does not matter
    };
    h->BeforeWriteByte = [](DbfBase*) { return log += "byte", 0; };
    h->DeleteFlag = '?';
    const std::string rest = padded("", 298, 'n') + "\1\2\3\4";
    setRecord(h.get(), "!nx" + rest);
    const std::tuple<int (*)(DbfBase*, u32), std::string, std::string> writes[] = {
        {WriteByte, "byte", "?" + layout.records[1].substr(1)},
        {[](DbfBase* b, u32 position) { return WriteField(b, position, 0); }, "",
         "?nx" + rest.substr(0, 298) + "    "},
        {InternalWriteRecord, "record", "!nH" + rest},
        {WriteRecord, "record", "!nH" + rest}};
    for (const auto& [write, called, written] : writes) {
        EXPECT_EQ(write(h.get(), 0x7FFFFFFF), 0) << "out of reach";
        EXPECT_EQ(write(h.get(), 1), 1);
        EXPECT_EQ(std::exchange(log, ""), called);
        EXPECT_EQ(std::exchange(h->Modified, 0), 1u);
        layout.records[1] = written;
        EXPECT_TRUE(readAll(h->FileName) == layout.bytes());
    }
    for (const int none : {2, -1}) EXPECT_EQ(WriteField(h.get(), 0, none), 0);
    h->BeforeWrite = [](DbfBase* base) {
        return log += base->UseFilterIndex != 0 ? "mapped" : "plain", 0;
    };
    EXPECT_EQ(AppendBlank(h.get(), 0), 1);
    EXPECT_EQ(log, "plain") << "positions are records meanwhile";
    EXPECT_EQ(h->UseFilterIndex, 1);
}

TEST(Write, BackupIsMadeOnceAndWhole) {
    const Folder folder;
    const std::string bytes = kMany.bytes();
    const Table h = openLayout(folder, kMany), own = openLayout(folder, kMany, "own.bak");
    writeAll(h->BackupName, "older");
    const std::tuple<i32, rlim_t, std::string> copies[] = {
        {0, 400000, "older"}, {1, 40000, "older"}, {1, 400000, bytes}};
    for (const auto& [enabled, room, copy] : copies) {
        overwrite(h->FileName, bytes);
        const FileSizeLimit limit(room);
        h->BackupEnabled = enabled;
        setRecord(h.get(), " other");
        for (u32 i = 0; i < 2; ++i) EXPECT_EQ(WriteRecord(h.get(), i), 1);
        EXPECT_TRUE(readAll(h->BackupName) == copy) << room;
        EXPECT_EQ(h->BackupDone, copy == bytes);
    }
    std::filesystem::remove(h->BackupName);
    std::filesystem::create_directory(h->BackupName);
    EXPECT_EQ(MakeBakFile(h.get(), 1), 1);
    EXPECT_EQ(h->BackupDone, 0) << "a directory stays";
    std::filesystem::remove(h->BackupName);
    std::filesystem::create_hard_link(h->FileName, h->BackupName);
    EXPECT_EQ(MakeBakFile(h.get(), 1), 0) << "the table by another name";
    std::filesystem::remove(h->BackupName);
    const std::string now = readAll(h->FileName);
    writeAll(folder.file("t.~a0"), now.substr(0, 40000));  // what a killed copy has left
    writeAll(folder.file("t.~a1"), "another's");
    EXPECT_EQ(MakeBakFile(h.get(), 1), 1);
    EXPECT_EQ(h->BackupDone, 1);
    EXPECT_TRUE(readAll(h->BackupName) == now);
    EXPECT_EQ(readAll(folder.file("t.~a1")), "another's");
    EXPECT_FALSE(std::filesystem::exists(folder.file("t.~a0")));
    EXPECT_EQ(MakeBakFile(own.get(), 1), 0) << "is its own backup";
    EXPECT_TRUE(readAll(own->FileName) == bytes);
}

TEST(Write, EveryOperationBacksUpTheTableAsItWas) {
    const std::pair<const char*, int (*)(DbfBase*)> writers[] = {
        {"WriteRecord", [](DbfBase* h) { return WriteRecord(h, 1); }},
        {"InternalWriteRecord", [](DbfBase* h) { return InternalWriteRecord(h, 1); }},
        {"WriteByte", [](DbfBase* h) { return WriteByte(h, 1); }},
        {"WriteField", [](DbfBase* h) { return WriteField(h, 1, 0); }},
        {"AppendBlank", [](DbfBase* h) { return AppendBlank(h, 0); }},
        {"DeleteRecord", [](DbfBase* h) { return DeleteRecord(h, 1); }},
        {"RecallRecord", [](DbfBase* h) { return RecallRecord(h, 0); }},
        {"InverseRecord", [](DbfBase* h) { return InverseRecord(h, 1); }},
        {"Delete", [](DbfBase* h) { return Delete(h, 1); }},
        {"Insert", [](DbfBase* h) { return Insert(h, 1, 1); }},
        {"Truncate", [](DbfBase* h) { return Truncate(h, 1); }},
        {"Zap", Zap},
        {"Pack", [](DbfBase* h) { return Pack(h, 0); }},
        {"Pack of records", [](DbfBase* h) { return Pack(h, 1); }},
        {"Pack of memos", [](DbfBase* h) { return Pack(h, 2); }}};
    const Layout layout{0x83,
                        {{"NAME", 'C', 4}, {"NOTE", 'M', 10}},
                        {"*one          2", " two          3", " six           "}};
    for (const auto& [name, write] : writers) {
        const Folder folder;
        const Table h = openLayout(folder, layout);
        writeAll(h->MemoFileName, padded("\4", 1024, 0) + padded("a\x1A", 512) + "b\x1A");
        setRecord(h.get(), " new          3");
        h->DeleteFlag = '*';
        h->BackupEnabled = 1;
        EXPECT_EQ(write(h.get()), 1) << name;
        EXPECT_NE(readAll(h->FileName), layout.bytes()) << name;
        EXPECT_EQ(readAll(h->BackupName), layout.bytes()) << name;
        EXPECT_EQ(h->BackupDone, 1) << name;
    }
}

TEST(Write, ARecordThatCannotBeRemovedIsPutBack) {
    const Folder folder;
    Layout layout = kMany;
    int n = 1000;
    for (std::string& record : layout.records) record.replace(1, 4, std::to_string(n++));
    const Table h = openLayout(folder, layout);
    {
        const FileSizeLimit limit(200000);  // no room behind the records, nor in the second chunk
        EXPECT_EQ(Delete(h.get(), 0), 0);
    }
    EXPECT_EQ(h->Header.RecordCount, 1000u);
    EXPECT_TRUE(readAll(h->FileName) == layout.bytes());
}

TEST(Write, HeaderHasTheDateAndTheLastByte) {
    const Folder folder;
    const Table h = openBytes(folder, kMany.bytes().substr(0, 97 + 3 * 305));
    EXPECT_EQ(WriteHeader(h.get()), 1);
    Layout three = kMany;
    three.records.resize(3);
    const std::string file = readAll(h->FileName);
    EXPECT_TRUE(same(file, dated(three.bytes(), file)));
    std::FILE* const full = std::fopen("/dev/full", "wb");
    EXPECT_EQ(WriteFile(full, "x", 1), 0u);
    std::fclose(full);
}

}  // namespace
}  // namespace test
