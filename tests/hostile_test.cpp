// What is no table or memo file at all in the place of one.
#include <sys/stat.h>

#include "support.h"

using namespace mira;
using namespace test;

namespace {

const Layout kWithMemo{0x83, {{"NOTE", 'M', 10}}, {" " + padded("", 9) + "1"}};

TEST(Hostile, OnlyRegularFilesAreOpened) {
    const TempDir outer;
    mkfifo(outer.file("fifo").c_str(), 0600);
    for (const std::string& path : {outer.file("fifo"), outer.file(""), "/dev/full"s}) {
        EXPECT_EQ(OpenBase(path.c_str()), nullptr) << path;
        const TempDir dir;
        for (const char* name : {"t.dbt", "t.hdr", "t.bak"})
            std::filesystem::create_symlink(path, dir.file(name));
        const Table h = openLayout(dir, kWithMemo);
        EXPECT_EQ(CreateDatabase(path.c_str(), h->Fields, 1, 0, 0, 0), 0);
        EXPECT_EQ(ReadRecord(h.get(), 0) + SetMemo(h.get(), 0, "text") + Pack(h.get(), 0), 1);
        EXPECT_EQ(GetMemo(h.get(), 0), nullptr);
        SetAliasName(h.get(), nullptr);
        for (auto* const useAliases : {WriteAlias, ReadAlias}) useAliases(h.get());
        EXPECT_EQ(MakeBakFile(h.get(), 1), 1) << "takes the place of a link";
        EXPECT_EQ(readAll(dir.file("t.bak")), kWithMemo.bytes());
    }
}

TEST(Hostile, ATableIsNotItsOwnMemoFile) {
    const TempDir dir;
    const Table h = openLayout(dir, kWithMemo, "t.dbt");
    EXPECT_EQ(ReadRecord(h.get(), 0) + SetMemo(h.get(), 0, "text") + Pack(h.get(), 0), 1);
    EXPECT_EQ(CreateMemoFile(h->FileName, 0, 0), 0);
    EXPECT_EQ(readAll(dir.file("t.dbt")), kWithMemo.bytes());
}

}  // namespace
