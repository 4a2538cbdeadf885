// What is prepared once, for filters and for calculated fields, against the reference, which takes
// every text apart for every record: random expressions over random and broken values, with all
// options and hooks.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <random>

#include "support/reference.h"
#include "support/tables.h"

namespace test {
namespace {

constexpr std::size_t kRecords = 200;
constexpr int kTexts = 2500;  // of each kind, so that a million cases are looked at

const std::vector<Column> kColumns = {
    {"NAME", 'C', 12},   {"LONG", 'C', 44, 1}, {"PRICE", 'N', 10, 2}, {"QTY", 'N', 5},
    {"ONE", 'N', 1},     {"FINE", 'F', 20, 7}, {"SUM", 'N', 17, 2},   {"WIDE", 'N', 100, 3},
    {"FRAC", 'N', 3, 2}, {"CNT", 'I', 4},      {"AUTO", '+', 4},      {"CASH", 'Y', 8},
    {"DBL", 'B', 8, 3},  {"DEEP", 'B', 8, 19}, {"ORD", 'O', 8},       {"BORN", 'D', 8},
    {"SEEN", 'T', 14},   {"AT", 'T', 8},       {"STAMP", '@', 14},    {"FLAG", 'L', 1},
    {"MEMO", 'M', 10},   {"BIN", 'Q', 6}};

struct Source {
    std::mt19937 random{7};

    u32 below(u32 count) { return static_cast<u32>(random() % count); }
    bool oneIn(u32 count) { return below(count) == 0; }
    std::string pick(std::string_view list) {
        u32 place = below(static_cast<u32>(std::count(list.begin(), list.end(), ';')) + 1);
        for (; place > 0; --place) list.remove_prefix(list.find(';') + 1);
        return std::string(list.substr(0, list.find(';')));
    }

    double real() {
        const double value = static_cast<double>(static_cast<i32>(random())) / (1 + below(5000));
        return oneIn(8) ? std::ldexp(value, static_cast<int>(below(200)) - 100) : value;
    }
    std::string digits() {
        return printed("%04u%02u%02u%02u%02u%02u", oneIn(3) ? below(10000) : 1990 + below(40),
                       below(14), below(33), below(26), below(62), below(62));
    }
    std::string binary(char type) {
        const double value = real();
        const u64 bits = std::bit_cast<u64>(value), top = u64{1} << 63;
        if (type == 'B') return le(bits, 8);
        if (type == 'O') return be(value < 0 ? ~bits : bits | top, 8);
        if (type == 'T') return le(2444240 + below(20000), 4) + le(below(86500000), 4);
        return le(static_cast<u64>(i64{static_cast<i32>(random())}) >> below(2) * below(60), 8);
    }
    std::string value(const Column& c) {
        const int width = static_cast<int>(c.width()), decimals = static_cast<int>(c.decimals);
        std::string text;
        if (std::strchr("BOYI+", c.type) != nullptr || (c.type == 'T' && width == 8)) {
            text = oneIn(4) ? le(random(), 4) + le(random(), 4) : binary(c.type);
        } else if (oneIn(8)) {
            for (int i = 0; i < width; ++i) text += static_cast<char>(oneIn(2) ? ' ' : below(256));
        } else if (std::strchr("DT@", c.type) != nullptr) {
            text = digits();
            if (oneIn(6)) text[below(8)] = " x-+("[below(5)];
        } else if (std::strchr("NF", c.type) != nullptr && !oneIn(3)) {
            text = printed("%*.*f", width, decimals, std::trunc(real()) / (oneIn(2) ? 8 : 1));
        } else {
            text = pick(
                ";0;5;-5;500.00;.5;5.;1e3;0x1A;inf;5 5;+7;-0;-;.;-.5;12345678.25;an;Ann;T; (x;TRIM("
                " a ););<b;=;UPPER(q);\xE0\x80;it's;20240305");
            if (oneIn(2))
                text.insert(0,
                            static_cast<std::size_t>(
                                std::max<int>(0, width - static_cast<int>(text.size()))),
                            ' ');
        }
        return padded(text, c.width(), oneIn(9) ? '\0' : ' ');
    }

    std::string field() { return kColumns[below(static_cast<u32>(kColumns.size()))].name; }
    std::string number() {
        return pick(
            "PRICE;QTY;ONE;FINE;SUM;WIDE;FRAC;CNT;AUTO;CASH;DBL;DEEP;ORD;price;5;2;0;1.5;"
            ".5;1E2;10;3;2E;NAME");
    }
    /// At the limits of the parser, or with a number that does not stand alone.
    std::string edge() {
        const int count = static_cast<int>(below(6));
        if (oneIn(3))
            return repeat("(", 23 + count) + pick(";1+2*;1+2^2^") + number() +
                   repeat(")", 23 + count);
        std::string text = pick("'2'QTY;QTY'5';ONE'.5';ONE'E2';'2E'ONE;.QTY;ONE\"\"ONE;2E+ONE;QTY");
        for (int i = 0; i < count + 2; ++i) text += "+" + number();
        return text;
    }
    std::string arithmetic(int depth) {
        if (oneIn(16)) return edge();
        const std::string blank = pick(";;;; ;  ");
        if (depth == 0 || oneIn(4)) return blank + number() + blank;
        const std::string inner = arithmetic(depth - 1);
        if (oneIn(8)) return "(" + inner + ")";
        if (oneIn(6)) return pick("SIN;SQR;sqrt;ROUND;trunc;LOG;POW10;X;-;-") + "(" + inner + ")";
        if (oneIn(9)) return "-" + inner;
        return inner + pick("+;-;*;/;+;-;*;^; ;:;'5';,;") + arithmetic(depth - 1);
    }
    std::string operand() {
        switch (below(6)) {
            case 0:
                return arithmetic(2);
            case 1:
                return pick(
                    "DTOS(05.03.2024);UPPER(an);LOWER(AN);TRIM( a "
                    ");'x';CAP(ann);DTOS(05.03.2024);UPPER(an;"
                    "((an);an);20200101;2024;T;;5");
            case 2:
                return pick("; ;'  '") + field() + pick("; ;'x'");
            case 3:
                return "UPPER(" + field() + ")";
            default:
                return field() + pick(";;;;*2;+1;NAME");
        }
    }
    std::string condition() {
        return (oneIn(4) ? operand() : field()) +
               pick("=;==;>;>>;<;<<;>=;=>;<=;=<;<>;><;~;^;~<;~>;~=;^=;;+;=;>;<;~") + operand();
    }
    std::string filter(int depth) {
        if (depth == 0 || oneIn(3)) return condition();
        const std::string text = filter(depth - 1) + pick("&;|;&;|;(;&)") + filter(depth - 1);
        return oneIn(2) ? text : "(" + text + ")";
    }
};

int markUpper(char* text, DbfBase*, int) { return *text != 0 ? *text = 'U' : 0; }
int toOem(const char* from, char* to, u32 length) {
    for (u32 i = 0; i < length; ++i) to[i] = from[i] == 'x' ? '(' : from[i];
    return 0;
}
/// An application that changes options from record to record.
int turnOptions(DbfBase* h) {
    h->RawNumeric = h->RecordBuffer[327] % 2;
    h->NoBracketCheck = h->RecordBuffer[322] % 2;
    h->DateFormat = h->RecordBuffer[322] % 2;
    return 0;
}

struct Prepared : testing::Test {
    Prepared() {
        Layout layout{.columns = kColumns};
        for (std::size_t i = 0; i < kRecords; ++i) {
            std::string& record = layout.records.emplace_back(source.oneIn(4) ? "*" : " ");
            for (const Column& c : kColumns) record += source.value(c);
        }
        table = openLayout(folder, layout);
        h = table.get();
        EXPECT_EQ(GetMemCalcField(h), 1);
    }
    ~Prepared() override { FreeMemCalcField(h); }

    void turnOptionsAtRandom() {
        for (i32 DbfBase::*option :
             {&DbfBase::TrimMode, &DbfBase::RawNumeric, &DbfBase::NoBracketCheck,
              &DbfBase::OemConvert, &DbfBase::SkipDeleted, &DbfBase::MemoAsNumber,
              &DbfBase::DateFormat})
            h->*option = source.oneIn(4) ? static_cast<i32>(source.below(5)) : 0;
        h->CaseInsensitive = source.oneIn(3);
        h->UpperCaseCallback = source.oneIn(8) ? markUpper : nullptr;
        h->CharToOemCallback = source.oneIn(6) ? toOem : nullptr;
        h->AfterRead = source.oneIn(8) ? turnOptions : nullptr;
    }
    void define(const std::string& expression) {
        DelCalcField(h, "X");
        ASSERT_EQ(AddCalcField(h, "X", expression.c_str()), 1);
    }
    std::string shown() {
        const char* const text = GetCalcString(h, "X");
        return text != nullptr ? text : "(null)";
    }

    Source source;
    Folder folder;
    Table table;
    DbfBase* h = nullptr;
};

TEST_F(Prepared, CalculatedFields) {
    int values = 0;
    for (int i = 0; i < kTexts; ++i) {
        turnOptionsAtRandom();
        const std::string text = source.oneIn(4) ? source.operand() : source.arithmetic(3);
        define(text);
        for (u32 record = 0; record < kRecords; ++record) {
            ReadRecord(h, record);
            const double wanted = calculatedValue(current(h), text), got = GetCalcValue(h, "X");
            ASSERT_EQ(std::isnan(got) ? 0 : std::bit_cast<u64>(got),
                      std::isnan(wanted) ? 0 : std::bit_cast<u64>(wanted))
                << text << " of record " << record << ": " << got << ", not " << wanted;
            ASSERT_EQ(GetSign(h, h->FieldCount), (wanted > 0) - (wanted < 0)) << text;
            ASSERT_EQ(shown(), calculated(current(h), text).value_or("(null)")) << text;
            values += wanted != 0;
        }
    }
    EXPECT_GT(values, 100000) << "too little is arithmetic";
}

TEST_F(Prepared, Filters) {
    int some = 0;
    for (int i = 0; i < kTexts; ++i) {
        turnOptionsAtRandom();
        const std::string text = source.filter(2);
        std::vector<u32> wanted;
        for (u32 record = 0; record < kRecords; ++record) {
            ReadRecord(h, record);
            if (passes(current(h), text)) wanted.push_back(record);
        }
        if (isRefused(h, text)) continue;
        ASSERT_EQ(set_filter(h, text.c_str(), nullptr), h) << text;
        ASSERT_EQ(std::vector<u32>(h->FilterIndex, h->FilterIndex + h->FilterCount), wanted)
            << text;
        some += !wanted.empty() && wanted.size() < kRecords;
        ClearAllFilter(h);
    }
    EXPECT_GT(some, 500) << "the texts select too little to tell";
}

// The application may rewrite slots and descriptions of fields; nothing of before is computed then.
TEST_F(Prepared, FollowsWhatTheApplicationChanges) {
    setRecord(h, " " + padded("Ann", 12) + padded("", 300) + "     12.50    3");
    define("QTY*2");
    CalcFieldSlot& slot = h->CalcFields->Slots[h->FieldCount];
    EXPECT_EQ(shown(), "            6.000000");
    slot.Expression[0] = 'q';
    slot.Expression[4] = '3';
    EXPECT_EQ(shown(), "            9.000000") << "rewritten in place";
    std::free(std::exchange(slot.Expression, strdup("NAME")));
    EXPECT_EQ(shown(), "Ann         ") << "another text";
    EXPECT_EQ(if_digit_calc(h, "x"), 0);
    define("PRICE*QTY");
    EXPECT_EQ(shown(), "           37.500000") << "another slot at the same place";
    EXPECT_EQ(if_digit_calc(h, "x"), 1);
    h->Fields[2].Type = 'C';
    h->Fields[2].Decimals = 0;
    EXPECT_EQ(shown(), "           37.500000") << "a text that looks like a number";
    std::strcpy(h->Fields[3].Name, "COUNT");
    EXPECT_EQ(shown(), "     12.50*QTY");
    EXPECT_EQ(if_digit_calc(h, "x"), 0);
    EXPECT_EQ(SetFilePointer(h->TableFile, 0, nullptr, 0), 0u);
    EXPECT_EQ(ReadHeader(h) + ReadFields(h), 2);
    setRecord(h, " " + padded("Ann", 312) + "      0.50    3");
    EXPECT_EQ(shown(), "            1.500000") << "read anew";
    FreeMemCalcField(h);
    EXPECT_EQ(GetMemCalcField(h), 1);
    define("QTY");
    EXPECT_EQ(shown(), "            3.000000");
}

TEST_F(Prepared, ABlankNumberShownAsStoredIsOneCharacterLonger) {
    const Table blank =
        openLayout(folder, {.columns = {{"N", 'N', 24}}, .records = {padded("", 25)}}, "blank.dbf");
    blank->RawNumeric = 1;
    for (const auto& [blanks, passing] : {std::pair{484u, 1u}, {485u, 0u}}) {
        const std::string text = "N=0" + padded("", blanks);
        ASSERT_EQ(set_filter(blank.get(), text.c_str(), nullptr), blank.get());
        EXPECT_EQ(reccount(blank.get()), passing) << blanks;
        ClearAllFilter(blank.get());
    }
}

TEST_F(Prepared, FollowsADateFormatThatAHookSets) {
    const Table day =
        openLayout(folder, {.columns = {{"BORN", 'D', 8}}, .records = {" 20240305"}}, "day.dbf");
    day->AfterRead = [](DbfBase* base) { return base->DateFormat = 1; };
    ASSERT_EQ(set_filter(day.get(), "BORN=DTOS(05.03.2024)", nullptr), day.get());
    EXPECT_EQ(reccount(day.get()), 1u);
}

DbfBase* sorted = nullptr;
int sortOnce() { return sorted->SortOrder == nullptr && SortBase(sorted, "NAME", nullptr) == 0; }

TEST_F(Prepared, ACallbackThatSortsLeavesNoOrder) {
    sorted = h;
    ASSERT_EQ(set_filter(h, "PRICE>1", sortOnce), h);
    EXPECT_EQ(h->SortOrder, nullptr);
    EXPECT_NE(h->FilterIndex, nullptr);
}

// An expression that lies where values are written counts as it was.
TEST_F(Prepared, ReadsExpressionsFromTextBuffer) {
    setRecord(h, " " + padded("Ann", 312) + "     12.50    3");
    char out[32768];
    int numeric = 0;
    std::strcpy(h->TextBuffer, "QTY+PRICE");
    EXPECT_EQ(makecalcstring(h, h->TextBuffer, out, &numeric), 5);
    EXPECT_STREQ(out, "    3+     12.50");
    FilterWork work{};
    h->FilterState = &work;
    std::strcpy(h->TextBuffer, "QTY=3&PRICE>12");
    EXPECT_EQ(ValidRecord(h, h->TextBuffer), 1);
    std::strcpy(h->TextBuffer, "QTY>PRICE");
    EXPECT_EQ(cnd(h, h->TextBuffer), '0');
    h->FilterState = nullptr;
}

}  // namespace
}  // namespace test
