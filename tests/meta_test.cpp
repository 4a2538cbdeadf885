// Paths, aliases and options; the locale and the folder for scratch files, on which nothing
// depends.
#include <cctype>
#include <clocale>

#include "support.h"

namespace test {
namespace {

TEST(Meta, Paths) {
    char drive[4], dir[256], name[256], ext[10], made[260];
    const std::string longPath = repeat("d", 300) + "/" + repeat("n", 300) + ".extension1";
    const std::tuple<std::string, std::string, std::string, std::string> paths[] = {
        {"a.b/c.tar.gz", "a.b/", "c.tar", ".gz"},
        {"d.e/plain", "d.e/", "plain", ""},
        {longPath, repeat("d", 255), repeat("n", 255), ".extensio"}};
    for (const auto& [path, folder, base, extension] : paths) {
        _splitpath(path.c_str(), drive, dir, name, ext);
        EXPECT_EQ(
            std::tuple(std::string(drive), std::string(dir), std::string(name), std::string(ext)),
            std::tuple(""s, folder, base, extension));
    }
    MakeExt(made, "x/t.dbf", ".bak", nullptr);
    EXPECT_STREQ(made, "x/t.bak");
    _splitpath(made, drive, dir, made, ext);
    EXPECT_EQ(std::string(dir) + "|" + made + "|" + ext, "x/|t|.bak") << "in place";
    MakeExt(made, "x/t.dbf", ".bak", "other.hdr");
    EXPECT_STREQ(made, "x/other.hdr");
    MakeExt(made, longPath.c_str(), ".bak", nullptr);
    EXPECT_STREQ(made, "");
    EXPECT_EQ(Calc64(65535, 0xFFFFFFFF, 65535), 281470681743360ULL);
    EXPECT_EQ(ReadFile(nullptr, made, 1) + WriteFile(nullptr, made, 1), 0u);
    EXPECT_EQ(ReadFile(stdin, made, -1) + WriteFile(stdout, made, -1), 0u);
    EXPECT_EQ(SetFilePointer(nullptr, 0, nullptr, SEEK_SET), 0xFFFFFFFF);
    EXPECT_EQ(Open_FileRO("none"), nullptr);
}

TEST(Meta, AliasFileHoldsOneHeadingPerField) {
    const Folder folder;
    const Table h = openLayout(folder, {0x03, {{"A", 'C', 1}, {"B", 'C', 1}}});
    for (const auto& name : {padded("", 300, 'x'), "t.dbf"s}) {
        SetAliasName(h.get(), name.c_str());
        WriteAlias(h.get());
    }
    EXPECT_EQ(readAll(h->FileName).size(), 98u) << "is no alias file";
    SetAliasName(h.get(), nullptr);
    EXPECT_STREQ(GetHeader(h.get(), 1), "B");
    h->AliasNames[1][0] = 'H';
    WriteAlias(h.get());
    const std::string mark = padded("Header file MIRA", 32, 0);
    EXPECT_EQ(readAll(folder.file("t.hdr")), mark + padded("", 32, 0) + padded("H", 32, 0));
    h->UseAliases = 1;
    EXPECT_STREQ(GetHeader(h.get(), 0), "A") << "without a heading the name";
    for (const auto& [bytes, heading] : {std::pair(mark.substr(0, 31), "A"s),
                                         {mark + "cut", "cut"},
                                         {mark + padded("", 70000, 'x'), padded("", 31, 'x')}}) {
        writeAll(h->AliasFileName, bytes);
        ReadAlias(h.get());
        EXPECT_EQ(GetHeader(h.get(), 0), heading);
        EXPECT_EQ(GetLenHeader(h.get(), 0), static_cast<int>(heading.size()));
    }
    EXPECT_EQ(GetHeader(h.get(), 1), padded("", 31, 'x')) << "and every other";
    writeAll(h->AliasFileName, mark + padded("First", 32, 0) + padded("Second", 32, 0));
    ReadAlias(h.get());
    EXPECT_EQ(str(GetHeader(h.get(), 0)) + GetHeader(h.get(), 1), "FirstSecond");
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

TEST(Meta, CaseVersionsAndMessages) {
    DbfBase h{};
    std::string text = "ab\xA0\xAF\xE0\xEF\xF1`{";
    const std::string as = text;
    IgnoreCase(&h, text.data(), 0);
    EXPECT_EQ(text, as);
    h.CaseInsensitive = 1;
    IgnoreCase(&h, text.data(), 0);
    EXPECT_EQ(text, "AB\x80\x8F\x90\x9F\xF1`{");
    EXPECT_EQ(UpperCase(reinterpret_cast<u8*>(text.data())), 9u);
    h.UpperCaseCallback = [](char* to, DbfBase*, int mode) {
        return int{*to = static_cast<char>(mode)};
    };
    IgnoreCase(&h, text.data(), 'm');
    EXPECT_EQ(text[0], 'm');
    EXPECT_EQ(GetVerMIRAlib(0), 291);
    EXPECT_EQ(str(reinterpret_cast<const char*>(GetVerMIRAlib(1))).size(), 20u);
    EXPECT_EQ(GetVerMIRAlib(2), static_cast<std::intptr_t>(sizeof(DbfBase)));
    EXPECT_EQ(GetVerMIRAlib(3), 256);
    EXPECT_EQ(GetVerMIRAlib(7), 0);
    EXPECT_EQ(Msg(-12), 9);
    EXPECT_EQ(MsgS(padded("", 999, 'x').c_str()), 254);
}

/// Those of the system take a second to compile.
constexpr std::string_view kLocale =
    "LC_CTYPE\nupper <U00C4>\nlower <U00E4>\ntoupper (<U00E4>,<U00C4>)\nEND LC_CTYPE\n"
    "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \".\"\ngrouping 3;3\nEND LC_NUMERIC\n";

TEST(Meta, TheLocaleChangesNothing) {
    const Folder folder;
    writeAll(folder.file("source"), kLocale);
    const std::string make = "localedef -c -i '" + folder.file("source") + "' -f ISO-8859-1 '" +
                             folder.file("own") + "' >'" + folder.file("log") + "' 2>&1";
    setenv("LOCPATH", folder.file("").c_str(), 1);
    // Categories that are missing there are worth a warning, and so a status.
    const bool there = std::system(make.c_str()) != -1 && setlocale(LC_ALL, "own") != nullptr;
    unsetenv("LOCPATH");
    if (!there) GTEST_SKIP() << "no locale can be made here: " << readAll(folder.file("log"));
    EXPECT_EQ(printed("%.1f %X", 1.5, std::toupper(0xE4)), "1,5 C4");
    const Table h = openLayout(
        folder, {0x03, {{"N", 'N', 25, 2}, {"B", 'B', 8, 3}, {"Y", 'Y', 8}}, {padded("", 42)}});
    DbfBase* const b = h.get();
    EXPECT_EQ(ReadRecord(b, 0), 1);
    std::string letter = "\xE4";
    b->CaseInsensitive = 1;
    IgnoreCase(b, letter.data(), 0);
    EXPECT_EQ(std::exchange(b->CaseInsensitive, 0), 1);
    EXPECT_EQ(letter, "\x94") << "by code page 866";
    for (const double value : {1.5, 123456789.25, 1e17 + 64}) {
        for (const int field : {0, 1, 2}) SetValue(b, field, "", value);
        EXPECT_EQ(GetValue(b, 0), value);
        for (const int field : {0, 1})
            EXPECT_NE(str(GetStr(b, field)).find('.'), std::string::npos);
        for (const int field : {0, 1})
            EXPECT_EQ(str(GetStr(b, field)).find(','), std::string::npos);
    }
    EXPECT_EQ(WriteRecord(b, 0), 1);
    for (const char* filter : {"N>100000000000000000.5e-1", "B=100000000000000064.0", "N>0.5"}) {
        EXPECT_EQ(set_filter(b, filter, nullptr), b);
        EXPECT_EQ(reccount(b), 1u) << filter;
        ClearAllFilter(b);
    }
    std::string text = "1.2345678901234567890123+0.5";
    int status = 1;
    EXPECT_EQ(parse(text.data(), &status), 1.7345678901234567);
    setlocale(LC_ALL, "C");
}

}  // namespace
}  // namespace test
