// Questions about fields, options with a function of their own, and alias files.
#include "support.h"

using namespace mira;
using namespace test;

namespace {

TEST(Meta, NamesAndWidthsByType) {
    const TempDir dir;
    for (const auto& [column, expected] :
         rows("L1=Logical 1 1 6;D8=Date 8 10 10;@8=DateTime 8 19 19;B8=Double 20 20 20;"
              "B10=Binary 10 10 10;Y8=Currency 24 24 24;+4=Integer 10 10 10;X9=Unknown 9 9 9")) {
        const auto length = static_cast<u32>(std::stoi(column.substr(1)));
        const Table h = openLayout(dir, {0x03, {{"A", 'C', 1}, {"FIELD", column[0], length}}, {}});
        std::string shown = GetTypeName(h.get(), 1);
        for (h->DateFormat = 0; h->DateFormat < 2; ++h->DateFormat)
            shown += ' ' + std::to_string(GetLenView(h.get(), 1));
        EXPECT_EQ(shown + ' ' + std::to_string(GetLenMax(h.get(), 1)), expected);
    }
}

TEST(Meta, Options) {
    const TempDir dir;
    const Table h = openLayout(dir, {0x03, {{"A", 'C', 1}}, {}});
    EXPECT_EQ(SetDateSeparator(h.get(), '/'), '/');
    EXPECT_EQ(h->DateTimeFormats[1], "%02d/%02d/%04d %02d:%02d:%02d"s);
    std::string text = "ab\xA0\xAF\xE0\xEF\xF1`{";
    h->CaseInsensitive = 1;
    IgnoreCase(h.get(), text.data(), 0);
    EXPECT_EQ(text, "AB\x80\x8F\x90\x9F\xF1`{");
}

TEST(Meta, AliasFileHoldsOneHeadingPerField) {
    const TempDir dir;
    const Table h = openLayout(dir, {0x03, {{"A", 'C', 1}, {"B", 'C', 1}}, {}});
    for (const auto& name : {padded("", 300, 'x'), "t.dbf"s}) {
        SetAliasName(h.get(), name.c_str());
        WriteAlias(h.get());
    }
    EXPECT_EQ(readAll(h->FileName).size(), 98u) << "is no alias file";
    SetAliasName(h.get(), nullptr);
    h->AliasNames[1][0] = 'H';
    WriteAlias(h.get());
    const std::string mark = padded("Header file MIRA", 32, 0);
    EXPECT_EQ(readAll(dir.file("t.hdr")), mark + padded("", 32, 0) + padded("H", 32, 0));
    h->UseAliases = 1;
    for (const auto& [bytes, heading] : {std::pair(mark.substr(0, 31), "A"s),
                                         {mark + "cut", "cut"},
                                         {mark + padded("", 70000, 'x'), padded("", 31, 'x')}}) {
        writeAll(h->AliasFileName, bytes);
        ReadAlias(h.get());
        EXPECT_EQ(GetHeader(h.get(), 0), heading);
    }
}

TEST(Meta, AnAliasFileIsNoFileThatIsNeeded) {
    const TempDir dir;
    const Table h = openLayout(dir, {0x83, {{"M", 'M', 10}}, {}});
    CreateMemoFile(h->FileName, 0, 0);
    SetAliasName(h.get(), "t.bak");
    WriteAlias(h.get());
    EXPECT_FALSE(std::filesystem::exists(h->BackupName)) << "there is none yet";
    MakeBakFile(h.get(), 1);
    std::filesystem::create_hard_link(h->FileName, dir.file("link"));
    std::filesystem::create_symlink("t.dbt", dir.file("symbolic"));
    for (const char* name : {"./t.dbf", "link", "symbolic", "./t.dbt", "./t.bak"}) {
        SetAliasName(h.get(), name);
        WriteAlias(h.get());
        EXPECT_EQ(readAll(h->FileName).size() + readAll(h->BackupName).size(), 2u * 66) << name;
        EXPECT_EQ(readAll(h->MemoFileName).size(), 512u) << name;
    }
}

TEST(Meta, VersionsAndMessages) {
    EXPECT_EQ(GetVerMIRAlib(0) + GetVerMIRAlib(3) + GetVerMIRAlib(7), 291 + 256 + 0);
    EXPECT_EQ(GetVerMIRAlib(2), static_cast<std::intptr_t>(sizeof(DbfBase)));
    EXPECT_EQ(str(reinterpret_cast<const char*>(GetVerMIRAlib(1))).size(), 20u);
    EXPECT_EQ(MsgS(padded("", 999, 'x').c_str()) + Msg(-12), 254 + 9);
}

}  // namespace
