// Calculated fields: the table of definitions, substitution, values.
#include <cstring>

#include "support.h"

namespace {

using test::str;

class CalcFields : public testing::Test {
protected:
    CalcFields() {
        mira::ReadRecord(h, 0);
        mira::GetMemCalcField(h);
    }
    ~CalcFields() override { mira::FreeMemCalcField(h); }

    std::string text(const std::string& expression) {
        mira::DelCalcField(h, "X");
        EXPECT_EQ(mira::AddCalcField(h, "X", expression.c_str()), 1);
        return str(mira::GetCalcString(h, "x"));
    }
    double value() { return mira::GetCalcValue(h, "X"); }
    void store(int field, const std::string& bytes) {
        std::memcpy(h->RecordBuffer + h->Fields[field].Offset, bytes.data(), bytes.size());
    }

    test::TempDir dir;
    const std::vector<test::Column> columns = {{"NAME", 'C', 10},
                                               {"PRICE", 'N', 10, 2},
                                               {"QTY", 'N', 5},
                                               {"BORN", 'D', 8},
                                               {"WIDE_VALUE", 'N', 100, 2}};
    const std::string record = " Ann            12.50    320240305" + std::string(96, ' ') + "1.25";
    test::Table table = test::openLayout(dir, {.columns = columns, .records = {record}});
    mira::DbfBase* h = table.get();
};

TEST_F(CalcFields, SlotsAreFilledFromFieldCountOn) {
    EXPECT_EQ(mira::AddCalcField(h, "a", "1"), 1);
    EXPECT_EQ(mira::AddCalcField(h, "B", "2"), 1);
    EXPECT_EQ(mira::AddCalcField(h, "b", "3"), 1);
    EXPECT_EQ(mira::AddCalcField(h, nullptr, "3") + mira::AddCalcField(h, "c", nullptr), 0);
    EXPECT_EQ(mira::GetCalcI(h, "A"), 5);
    EXPECT_EQ(mira::GetCalcI(h, "b"), 6) << "the lower slot of two equal names";
    EXPECT_EQ(mira::GetCalcI(h, "c"), -1);
    EXPECT_EQ(str(mira::GetStr(h, 7)), "3");
    mira::DelCalcField(h, "none");
    for (const int slot : {-1, 0, 8, 2048}) {
        mira::DelCalcFieldI(h, slot);
        EXPECT_EQ(mira::GetCalcStringI(h, slot), nullptr);
        EXPECT_EQ(mira::GetCalcValueI(h, slot), 0.0);
        EXPECT_EQ(mira::if_digit_calci(h, slot), 0);
    }
    EXPECT_EQ(h->CalcFields->Count, 3u);
    mira::DelCalcField(h, "a");
    EXPECT_EQ(mira::AddCalcField(h, "d", "4"), 1);
    EXPECT_EQ(mira::GetCalcI(h, "d"), 5);
    EXPECT_EQ(h->CalcFields->Slots[5].Flags[2], 1);
    int added = 0;
    while (mira::AddCalcField(h, "n", "n") != 0) ++added;
    EXPECT_EQ(added, 2048 - 8);
    EXPECT_EQ(mira::GetMemCalcField(h), 1) << "an empty table takes the place of the old one";
    EXPECT_EQ(h->CalcFields->Count, 0u);
    mira::FreeMemCalcField(h);
    mira::FreeMemCalcField(h);
    EXPECT_EQ(mira::AddCalcField(h, "a", "1"), 0);
    EXPECT_EQ(mira::GetCalcI(h, "a"), -1);
    EXPECT_EQ(mira::GetCalcString(h, "a"), nullptr);
    EXPECT_EQ(mira::GetMemCalcField(nullptr), 0);
}

TEST_F(CalcFields, Arithmetic) {
    for (const char* expression : {"PRICE*QTY", "price*qty", "(Price) * qty"}) {
        EXPECT_EQ(text(expression), "           37.500000");
        EXPECT_EQ(value(), 37.5);
        EXPECT_EQ(mira::if_digit_calc(h, "x"), 1);
        EXPECT_EQ(mira::GetValue(h, 5), 37.5);
    }
    EXPECT_EQ(text("PRICE^2"), "          156.250000");
    EXPECT_EQ(mira::if_digit_calc(h, "X"), 0) << "the numeric test does not split at ^";
    EXPECT_EQ(mira::GetValue(h, 5), 0.0);
    EXPECT_EQ(mira::GetSign(h, 5), 1);
    for (const char* failing : {"PRICE/(QTY-QTY)", "PRICE*NONE", "PRICE+", "PRICE*NAME"}) {
        EXPECT_EQ(text(failing), "(null)") << failing;
        EXPECT_EQ(value(), 0.0);
    }
    EXPECT_EQ(text("1+2"), "1+2") << "no numeric field, no arithmetic";
    EXPECT_EQ(value(), 0.0);
    EXPECT_EQ(text("WIDE_VALUE*WIDE_VALUE"), "            1.562500") << "blanks are squeezed";
    EXPECT_EQ(text("PRICE" + std::string(80, ')')), "(null)");
    h->RawNumeric = 1;
    store(2, "     ");
    EXPECT_EQ(text("PRICE*QTY"), "            0.000000") << "a blank number counts as 0";
    EXPECT_EQ(text("10 QTY"), "(null)") << "its blanks stay in front of the 0";
    EXPECT_EQ(text("10QTY"), "10QTY") << "a name starts at the beginning of a word only";
}

TEST_F(CalcFields, Texts) {
    for (const std::string& row :
         test::split("TRIM(NAME)\"!\"=Ann!;TRIM(NAME)+'!'=Ann+!;\"NAME\"=NAME;"
                     "'it\"s' \"it's\"=it\"s it's;'open NAME=open NAME;BORN=20240305;"
                     "DTOS(BORN)=20240305;UPPER(TRIM(NAME))=ANN;(NAME=Ann       ;NAME_X=NAME_X;"
                     "NAME'!'NAME=Ann       !NAME;NAME\x80=NAME\x80;X=X;=;WIDE_VALU=WIDE_VALU")) {
        const std::size_t equals = row.find('=');
        EXPECT_EQ(text(row.substr(0, equals)), row.substr(equals + 1));
    }
    h->DateFormat = 1;
    EXPECT_EQ(text("BORN"), "20240305") << "dates arrive with the year first";
    EXPECT_EQ(h->DateFormat, 1);
}

TEST_F(CalcFields, ExpansionsThatDoNotFit) {
    std::string names;
    for (int i = 0; i < 3000; ++i) names += "NAME ";  // 11 characters each
    EXPECT_EQ(text(names), "(null)");
    EXPECT_EQ(text(std::string(32767, 'x')), std::string(32767, 'x'));
    EXPECT_EQ(text(std::string(32768, 'x')), "(null)");
    EXPECT_EQ(text(std::string(30000, '(') + "NAME"), "Ann       ");
}

TEST_F(CalcFields, Makecalcstring) {
    char out[32768];
    int numeric = 7;
    EXPECT_EQ(mira::makecalcstring(h, "'a>b'NAME>=PRICE*2", out, &numeric), 13);
    EXPECT_STREQ(out, "a>bAnn       >=     12.50*2");
    EXPECT_EQ(numeric, 1);
    EXPECT_EQ(mira::makecalcstring(h, "NAME \"-\"", out, &numeric), -1);
    EXPECT_EQ(numeric, 0);
    store(0, "\xC0\xE0");
    h->OemConvert = 1;
    mira::makecalcstring(h, "NAME '\xC0'", out, &numeric);
    EXPECT_STREQ(out, "\x80\xA0n        \xC0") << "values are converted, literals are not";
    h->CharToOemCallback = [](const char*, char* to, mira::u32 length) {
        to[0] = static_cast<char>('0' + length % 10);
        return 0;
    };
    mira::makecalcstring(h, "BORN", out, &numeric);
    EXPECT_STREQ(out, "80240305");
}

TEST_F(CalcFields, CheckBrackets) {
    for (const std::string& row :
         test::split("((a)=(a);(a))=(a);(a)b)=(a)b;(a(b=a(b;a)(b=a)(b;a(b=a(b;"
                     "((=;))=;)a=)a;a(=a(;=;))(())=))((")) {
        std::string text = row.substr(0, row.find('='));
        std::string kept = text;
        mira::CheckBrackets(h, text.data());
        EXPECT_EQ(text.c_str(), row.substr(row.find('=') + 1)) << row;
        h->NoBracketCheck = 1;
        mira::CheckBrackets(h, kept.data());
        EXPECT_EQ(kept, row.substr(0, kept.size()));
        h->NoBracketCheck = 0;
    }
}

}  // namespace
