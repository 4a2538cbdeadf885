// Questions about fields, options with a function of their own, and alias files.
#include <cstring>
#include <utility>

#include "support.h"

using namespace mira;
using namespace test;

namespace {

TEST(Meta, FieldsByType) {
    const struct {
        Column column;
        const char* typeName;
        int view, viewWithDates, most;
    } cases[] = {
        {{"NAME", 'C', 44, 1}, "Character", 300, 300, 300},
        {{"ACTIVE", 'L', 1}, "Logical", 1, 1, 7},
        {{"D", 'D', 8}, "Date", 8, 10, 8},
        {{"AT", '@', 8}, "DateTime", 8, 19, 8},
        {{"B8", 'B', 8}, "Double", 20, 20, 20},
        {{"B10", 'B', 10}, "Binary", 10, 10, 10},
        {{"O4", 'O', 4}, "Binary", 20, 20, 20},
        {{"PLUS", '+', 4}, "Integer", 10, 10, 10},
        {{"P", 'P', 3}, "Picture", 3, 3, 3},
        {{"X", 'X', 9}, "Unknown", 9, 9, 9},
    };
    Layout layout;
    for (const auto& c : cases) layout.columns.push_back(c.column);
    const TempDir dir;
    const Table table = openLayout(dir, layout);
    DbfBase* const h = table.get();
    int field = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.column.name);
        EXPECT_EQ(GetFieldType(h, field), c.column.type);
        EXPECT_EQ(GetTypeName(h, field), std::string(c.typeName));
        EXPECT_EQ(GetLowLen(h, field), static_cast<int>(c.column.decimals));
        EXPECT_EQ(GetAllLen(h, field), static_cast<int>(GetLenField(h, field)));
        h->DateFormat = 2;
        EXPECT_EQ(GetLenView(h, field), c.viewWithDates);
        h->DateFormat = 0;
        EXPECT_EQ(GetLenView(h, field), c.view);
        EXPECT_EQ(GetLenMax(h, field++), c.most);
    }
    for (const int none : {-1, field, 5000}) {
        EXPECT_EQ(GetFieldType(h, none), '#');
        EXPECT_EQ(GetFieldName(h, none), nullptr);
        EXPECT_EQ(GetLenHeader(h, none) + GetLowLen(h, none) + GetAllLen(h, none), 0);
        EXPECT_EQ(GetLenView(h, none) + GetLenMax(h, none), 0);
        EXPECT_EQ(str(GetTypeName(h, none)), "Unknown");
    }
    GetMemCalcField(h);
    AddCalcField(h, "TWICE", "NAME");
    EXPECT_EQ(str(GetHeader(h, field)), "TWICE");
    EXPECT_EQ(GetLenView(h, field) + GetLenMax(h, field), 40);
    FreeMemCalcField(h);
}

TEST(Meta, Options) {
    const TempDir dir;
    const Table table = openLayout(dir, {.columns = {{"A", 'C', 1}}, .records = {}});
    DbfBase* const h = table.get();
    EXPECT_EQ(SetDateSeparator(h, '/'), '/');
    EXPECT_EQ(h->DateFormats[3], "%04d/%02d/%02d"s);
    EXPECT_EQ(h->DateTimeFormats[1], "%02d/%02d/%04d %02d:%02d:%02d"s);
    EXPECT_EQ(h->DateFormats[4], "%04d%02d%02d"s);
    EXPECT_EQ(SetDateSeparator(h, 0), '.');
    EXPECT_EQ(h->DateFormats[2], "%02d.%02d.%04d"s);

    std::string text = "ab\xA0\xAF\xE0\xEF\xF1`{";
    const auto folded = [&] { return IgnoreCase(h, text.data(), 'm'), text; };
    h->UpperCaseCallback = [](char* t, DbfBase*, int mode) {
        return *t = static_cast<char>(mode), 0;
    };
    EXPECT_EQ(folded()[0], 'a');
    h->CaseInsensitive = 1;
    EXPECT_EQ(folded()[0], 'm');
    h->UpperCaseCallback = nullptr;
    EXPECT_EQ(folded(), "MB\x80\x8F\x90\x9F\xF1`{");

    EXPECT_EQ(std::strlen(reinterpret_cast<const char*>(GetVerMIRAlib(1))), 20u);
    EXPECT_EQ(GetVerMIRAlib(0) + GetVerMIRAlib(3) + GetVerMIRAlib(7), 291 + 256 + 0);
    EXPECT_EQ(MsgS(std::string(999, 'x').c_str()) + Msg(-12), 254 + 9);
}

TEST(Alias, FileHoldsOneHeadingPerField) {
    const TempDir dir;
    Layout layout;
    for (const char* name : {"A", "B", "C"}) layout.columns.push_back({name, 'C', 1});
    const Table table = openLayout(dir, layout);
    DbfBase* const h = table.get();
    SetAliasName(h, std::string(300, 'x').c_str());
    EXPECT_EQ(h->AliasFileName, nullptr);
    WriteAlias(h);
    ReadAlias(h);
    SetAliasName(h, "t.dbf");  // would replace the table
    WriteAlias(h);
    EXPECT_EQ(readAll(h->FileName), layout.bytes());

    SetAliasName(h, "x.hdr");
    EXPECT_EQ(h->AliasFileName, dir.file("x.hdr"));
    SetAliasName(h, nullptr);
    EXPECT_EQ(h->AliasFileName, dir.file("t.hdr"));
    std::strcpy(h->AliasNames[1], "Heading");
    h->UseAliases = 1;
    EXPECT_EQ(str(GetHeader(h, 0)), "A");
    EXPECT_EQ(str(GetHeader(h, 1)), "Heading");
    WriteAlias(h);
    const std::string mark = padded("Header file MIRA", 32, 0);
    EXPECT_EQ(readAll(h->AliasFileName),
              mark + padded("", 32, 0) + padded("Heading", 32, 0) + padded("", 32, 0));

    const std::pair<std::string, const char*> files[] = {
        {padded("Header file MIRAX", 32, 0) + "no", "A"},
        {mark.substr(0, 31), "A"},
        {mark + "cut", "cut"},
        {mark + std::string(70000, 'x'), "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"},
        {mark, "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"},
    };
    for (const auto& [bytes, heading] : files) {
        writeAll(h->AliasFileName, bytes);
        ReadAlias(h);
        EXPECT_EQ(str(GetHeader(h, 0)), heading);
    }
}

}  // namespace
