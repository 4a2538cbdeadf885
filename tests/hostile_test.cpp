// What is no table or memo file at all in the place of one.
#include <sys/stat.h>

#include "support.h"

namespace {

using namespace mira;
using namespace test;

const Layout kWithMemo{0x83, {{"NOTE", 'M', 10}}, {" " + padded("", 9) + "1"}};

TEST(Hostile, OnlyRegularFilesAreOpened) {
    const TempDir dir;
    mkfifo(dir.file("fifo").c_str(), 0600);
    std::filesystem::create_directory(dir.file("dir"));
    for (const std::string& path : {dir.file("fifo"), dir.file("dir"), "/dev/full"s}) {
        SCOPED_TRACE(path);
        DbfField field{};
        CreateField(&field, "A", 'C', 5);
        EXPECT_EQ(OpenBase(path.c_str()), nullptr);
        EXPECT_EQ(OpenBaseRO(path.c_str()), nullptr);
        EXPECT_EQ(CreateDatabase(path.c_str(), &field, 1, 0, 0, 0), 0);
        for (const char* name : {"t.dbt", "t.hdr", "t.bak"}) {
            std::filesystem::remove_all(dir.file(name));
            std::filesystem::create_symlink(path, dir.file(name));
        }
        const Table h = openLayout(dir, kWithMemo);
        ASSERT_EQ(ReadRecord(h.get(), 0), 1);
        EXPECT_EQ(GetMemo(h.get(), 0), nullptr);
        EXPECT_EQ(SetMemo(h.get(), 0, "text"), 0);
        EXPECT_EQ(Pack(h.get(), 0), 0);
        SetAliasName(h.get(), nullptr);
        WriteAlias(h.get());
        ReadAlias(h.get());
        EXPECT_EQ(MakeBakFile(h.get(), 1), 1) << "takes the place of a link";
        EXPECT_EQ(readAll(dir.file("t.bak")), kWithMemo.bytes());
    }
}

TEST(Hostile, ATableIsNotItsOwnMemoFile) {
    const TempDir dir;
    const Table h = openLayout(dir, kWithMemo, "t.dbt");
    EXPECT_EQ(ReadRecord(h.get(), 0), 1);
    EXPECT_EQ(GetMemo(h.get(), 0), nullptr);
    EXPECT_EQ(SetMemo(h.get(), 0, "text") + Pack(h.get(), 0), 0);
    EXPECT_EQ(CreateMemoFile(h->FileName, 0, 0), 0);
    EXPECT_EQ(readAll(dir.file("t.dbt")), kWithMemo.bytes());
}

}  // namespace
