// Calculated fields: the table of definitions, substitution, values.
#include <cstring>

#include "support.h"

using namespace mira;
using namespace test;

namespace {

struct CalcFields : testing::Test {
    CalcFields() { EXPECT_EQ(ReadRecord(h, 0) + GetMemCalcField(h), 2); }
    ~CalcFields() override { FreeMemCalcField(h); }

    std::string text(const std::string& expression) {
        DelCalcField(h, "X");
        EXPECT_EQ(AddCalcField(h, "X", expression.c_str()), 1);
        return str(GetCalcString(h, "x"));
    }

    const std::vector<Column> columns = {{"NAME", 'C', 10},
                                         {"PRICE", 'N', 10, 2},
                                         {"QTY", 'N', 5},
                                         {"BORN", 'D', 8},
                                         {"WIDE_VALUE", 'N', 100, 2}};
    const std::string record = " Ann            12.50    320240305" + padded("", 96) + "1.25";
    TempDir dir;
    Table table = openLayout(dir, {.columns = columns, .records = {record}});
    DbfBase* h = table.get();
};

TEST_F(CalcFields, SlotsAreFilledFromFieldCountOn) {
    for (const char* name : {"a", "B", "b"}) EXPECT_EQ(AddCalcField(h, name, name), 1);
    EXPECT_EQ(AddCalcField(h, nullptr, "3") + AddCalcField(h, "c", nullptr), 0);
    EXPECT_EQ(GetCalcI(h, "b"), 6) << "the lower slot of two equal names";
    for (const int slot : {-1, 0, 8, 2048}) {
        DelCalcFieldI(h, slot);
        EXPECT_EQ(GetCalcStringI(h, slot), nullptr);
        EXPECT_EQ(GetCalcValueI(h, slot) + if_digit_calci(h, slot), 0);
    }
    DelCalcField(h, "A");
    int added = 0;
    while (AddCalcField(h, "n", "n") != 0) ++added;
    EXPECT_EQ(added, 2048 - 7);
    EXPECT_EQ(GetCalcI(h, "n"), 5) << "the lowest empty slot";
    EXPECT_EQ(GetMemCalcField(h), 1) << "an empty table takes the place of the old one";
    EXPECT_EQ(h->CalcFields->Count, 0u);
    for (int i = 0; i < 2; ++i) FreeMemCalcField(h);
    EXPECT_EQ(AddCalcField(h, "a", "1") + GetMemCalcField(nullptr), 0);
    EXPECT_EQ(GetCalcI(h, "a"), -1);
}

const char kTexts[] =
    "(Price) * qty=           37.500000;PRICE+=(null);PRICE*NONE=(null);"
    "WIDE_VALUE*WIDE_VALUE=            1.562500;10QTY=10QTY;TRIM(NAME)+'!'=Ann+!;\"NAME\"=NAME;"
    "'it\"s' \"it's\"=it\"s it's;'open NAME=open NAME;DTOS(BORN)=20240305;UPPER(TRIM(NAME))=ANN;"
    "(NAME=Ann       ;((a)=(a);(a))=(a);a(b=a(b;(a(=a(;)=;NAME_X=NAME_X;"
    "NAME'!'NAME=Ann       !NAME;NAME\x80=NAME\x80;X=X;=;WIDE_VALU=WIDE_VALU";

TEST_F(CalcFields, Values) {
    for (const auto& [expression, value] : rows(kTexts)) EXPECT_EQ(text(expression), value);
    EXPECT_EQ(text("PRICE" + repeat(")", 80)), "(null)");
    EXPECT_EQ(text(repeat("NAME ", 3000)), "(null)") << "11 characters each";
    EXPECT_EQ(text(repeat("x", 32767)), repeat("x", 32767));
    EXPECT_EQ(text(repeat("x", 32768)), "(null)");
    EXPECT_EQ(text(repeat("(", 30000) + "NAME"), "Ann       ");
    h->DateFormat = h->RawNumeric = 1;
    EXPECT_EQ(text("BORN"), "20240305") << "dates arrive with the year first";
    std::memset(h->RecordBuffer + h->Fields[2].Offset, ' ', 5);
    EXPECT_EQ(text("10 QTY"), "(null)") << "a blank number is a 0 behind its blanks";
    EXPECT_EQ(text("price+qty"), "           12.500000");
    EXPECT_EQ(GetValue(h, 5), 12.5);
    EXPECT_EQ(text("PRICE^2"), "          156.250000");
    EXPECT_EQ(GetValue(h, 5), 0.0) << "the numeric test does not split at ^";
    EXPECT_EQ(GetSign(h, 5), 1);
}

TEST_F(CalcFields, Substitution) {
    char out[32768];
    int numeric = 7;
    EXPECT_EQ(makecalcstring(h, "'a>b'NAME>=PRICE*2", out, &numeric), 13);
    EXPECT_STREQ(out, "a>bAnn       >=     12.50*2");
    EXPECT_EQ(numeric, 1);
    h->OemConvert = 1;
    h->RecordBuffer[1] = 0xC0;
    EXPECT_EQ(makecalcstring(h, "NAME \"-\xC0\"", out, &numeric), -1);
    EXPECT_EQ(numeric, 0);
    EXPECT_STREQ(out, "\x80nn        -\xC0") << "values are converted, literals are not";
    h->CharToOemCallback = [](const char*, char* to, u32 length) {
        return int{*to = static_cast<char>('0' + length % 10)};
    };
    makecalcstring(h, "BORN", out, &numeric);
    EXPECT_STREQ(out, "80240305");
}

}  // namespace
