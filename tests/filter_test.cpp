// Record filters: the language, the views, the limits, and the prepared filter against the plain
// way.
#include <cstring>
#include <random>

#include "support.h"

using namespace mira;
using namespace test;

namespace {

using Records = std::vector<u32>;

Records filtered(const DbfBase* h) { return {h->FilterIndex, h->FilterIndex + h->FilterCount}; }

/// What the plain way finds in the current view.
Records plainly(DbfBase* h, const std::string& text) {
    const auto work = std::make_unique<FilterWork>();
    Records found;
    h->FilterState = work.get();
    const u32 count = reccount(h);
    for (u32 i = 0; i < count; ++i) {
        ReadRecord(h, i);
        if (ValidRecord(h, text.c_str()) != 0)
            found.push_back(recno(h, h->Reverse != 0 ? count - 1 - i : i));
    }
    h->FilterState = nullptr;
    return found;
}

struct Filter : testing::Test {
    Records select(const std::string& text) {
        ClearAllFilter(h);
        return set_filter(h, text.c_str(), nullptr) == h ? filtered(h) : Records{99};
    }

    TempDir dir;
    Table table =
        openLayout(dir, {.columns = {{"NAME", 'C', 10}, {"PRICE", 'N', 10, 2}, {"QTY", 'N', 5}},
                         .records = {" Ann            12.50    1", "*Andrew          5.00    2",
                                     " Bob            30.00   20", "                -1.00     "}});
    DbfBase* h = table.get();
};

/// Filters and the records that they find.
const char kLanguage[] =
    "NAME=='Ann       ':0;NAME~NN:;NAME=:0123;PRICE>10&(QTY=1|QTY=2):0;PRICE>10|(QTY=1:;"
    "NAME='a&b':;NAME:;price >= 12.5 & ( qty = 1 | name <> Bob ):0;PRICE=>12.5:02;PRICE=<5:13;"
    "PRICE><5:023;PRICE>>5:02;PRICE<<5:3;PRICE~5:1;PRICE^5:1;PRICE~<5:13;PRICE~>5:012;PRICE~=5:;"
    "PRICE==5:1;NAME~>A:;NAME>B:;NAME>=B:2;NAME<B:013;NAME<>An:23;-1=PRICE:;PRICE=-1:3;"
    "12.5=PRICE:0;QTY=0:3;NAME~TRIM( o ):2;PRICE=SQR(5)/5:1;QTY=1&:;QTY=1|QTY=2&PRICE>100:0;"
    "(QTY=1|QTY=2)&PRICE>100:;2*(QTY=1|QTY=2):01;(QTY=1|QTY=2)/2:;QTY=1||QTY=2:01;NAME=\">A\":012";

TEST_F(Filter, Language) {
    for (const std::string& row : split(kLanguage)) {
        std::string found;
        for (const u32 r : select(row.substr(0, row.find(':')))) found += std::to_string(r);
        EXPECT_EQ(found, row.substr(row.find(':') + 1)) << row;
    }
    h->CaseInsensitive = 1;
    h->NoBracketCheck = 1;
    EXPECT_EQ(select("NAME~NN|PRICE>20|(QTY=1"), (Records{0, 2}));
}

TEST_F(Filter, Views) {
    EXPECT_EQ(SortBase(h, "NAME", nullptr), 1);
    for (const char* text : {"PRICE>1", "QTY>1"}) EXPECT_EQ(set_filter(h, text, nullptr), h);
    EXPECT_EQ(h->SortOrder, nullptr);
    EXPECT_EQ(filtered(h), (Records{1, 2}));
    ClearFilter(h);
    h->SkipDeleted = h->Reverse = 1;
    EXPECT_EQ(set_filter(h, reinterpret_cast<char*>(std::intptr_t{-1}), nullptr), h);
    EXPECT_EQ(filtered(h), (Records{3, 2, 0}));
    EXPECT_EQ(set_filter(h, "QTY<20", [] { return 1; }), h);
    EXPECT_EQ(h->FilterIndex, nullptr) << "stopped: the table is unfiltered";
    EXPECT_STREQ(h->FilterText, "PRICE>1&QTY>1&QTY<20");
}

TEST_F(Filter, Limits) {
    const std::string quotes = "QTY=1" + repeat("\"", 1018), most = repeat("QTY=1&", 39) + "QTY=1";
    const std::string longest = "NAME^" + std::string(500, 'x');
    for (const std::string& text : {quotes, most}) EXPECT_EQ(select(text), (Records{0}));
    EXPECT_EQ(select(longest), (Records{0, 1, 2, 3}));
    EXPECT_EQ(select(longest + "x"), (Records{})) << "the values do not fit";
    EXPECT_EQ(select("QTY<2"), (Records{0, 3}));
    ASSERT_EQ(SortBase(h, "NAME", nullptr), 1);
    for (const std::string& text :
         {quotes + "\"", most + "&QTY=1", repeat(most + "&", 100) + "QTY=1",
          "QTY=1|" + quotes + "'", repeat("(", 100000), repeat("&", 5000)}) {
        EXPECT_EQ(set_filter(h, text.c_str(), nullptr), nullptr);
    }
    EXPECT_EQ(filtered(h), (Records{0, 3})) << "a refused text changes nothing";
    EXPECT_NE(h->SortOrder, nullptr);
    EXPECT_STREQ(h->FilterText, "QTY<2");
    EXPECT_EQ(plainly(h, repeat("QTY=1&", 1024) + "QTY=1"), (Records{}));
    EXPECT_EQ(ValidRecord(h, "QTY=1") + analizator(h, "QTY=1"), 0) << "no work area";
    FilterWork work{};
    h->FilterState = &work;
    EXPECT_EQ(analizator(h, "A&(B|C)"), 3);
    EXPECT_EQ((Records{work.Cuts, work.Cuts + 3}), (Records{1, 4, 7}));
    h->FilterState = nullptr;
}

// Any table, any text, any option: the prepared filter finds what the plain way finds.

using Random = std::mt19937;

std::string pick(Random& random, std::string_view list) {
    const std::vector<std::string> parts = split(list);
    return parts[random() % parts.size()];
}

const std::vector<Column> kColumns = {
    {"NAME", 'C', 12},   {"LONG", 'C', 44, 1}, {"PRICE", 'N', 10, 2}, {"WIDE", 'N', 100, 3},
    {"FRAC", 'N', 3, 2}, {"FINE", 'F', 20, 7}, {"CNT", 'I', 4},       {"CASH", 'Y', 8},
    {"DBL", 'B', 8, 3},  {"ORD", 'O', 8},      {"BORN", 'D', 8},      {"SEEN", 'T', 8},
    {"FLAG", 'L', 1},    {"MEMO", 'M', 10},    {"BIN", 'Q', 6},       {"VAR", 'V', 6}};

std::string randomValue(Random& random, const Column& c) {
    const std::size_t width = Layout{.columns = {c}, .records = {}}.recordLength() - 1;
    std::string value;
    while (value.size() < width)
        value += static_cast<char>(random() % 3 != 0 ? random() % 3 : random());
    if (random() % 4 == 0 || std::strchr("IYBO", c.type) != nullptr) return value;
    value = std::to_string(random() >> random() % 32) + "." + std::to_string(random() % 999);
    if (c.type == 'C' || random() % 3 == 0)
        value = pick(random,
                     ";0;5;-5;500.00;.5;5.;1e3;0x1A;inf;nan;5 5;+7;Ann;an; (x;TRIM( a ););<b;=;>;"
                     "UPPER(q);\xE0\x80;it's;20240305;1;T");
    if (random() % 4 != 0 && value.size() < width) value.insert(0, width - value.size(), ' ');
    return padded(value, width, random() % 8 == 0 ? '\0' : ' ');
}

/// A condition on a field; its other side is more often than not a value that the field has.
std::string randomCondition(Random& random, DbfBase* h) {
    const int field = static_cast<int>(random() % kColumns.size());
    ReadRecord(h, static_cast<u32>(random() % h->Header.RecordCount));
    std::string right = std::string(GetStr(h, field)).substr(0, 60);
    if (random() % 3 == 0)
        right = pick(random, "5;an;'<b';\"=\";TRIM( a );UPPER(an;2*3;-(1+1);;NAME;PRICE;CNT;FINE");
    return pick(random, ";;;;;;; ;(;'") + GetFieldName(h, field) +
           pick(random, ";;;;;;; ;*2;'x';NAME") +
           pick(random, "=;==;>;>>;<;<<;>=;=>;<=;=<;<>;><;~;^;~<;~>;~=;^=;;+") + right +
           pick(random, ";;;;;;; ;*2;+QTY;'x';NAME;)");
}

std::string randomFilter(Random& random, DbfBase* h, int depth = 4) {
    if (depth == 0 || random() % 3 == 0) return randomCondition(random, h);
    const std::string text = randomFilter(random, h, depth - 1) + pick(random, "&;|; & ;|(;&)") +
                             randomFilter(random, h, depth - 1);
    return random() % 2 != 0 ? text : "(" + text + ")";
}

int markUpper(char* text, DbfBase*, int) { return *text != 0 ? *text = 'U' : 0; }
int turnOption(DbfBase* h) { return h->NoBracketCheck ^= h->RecordBuffer[1] % 2; }

void setOptions(DbfBase* h, Random& random) {
    for (i32 DbfBase::*option :
         {&DbfBase::TrimMode, &DbfBase::RawNumeric, &DbfBase::NoBracketCheck, &DbfBase::OemConvert,
          &DbfBase::SkipDeleted, &DbfBase::MemoAsNumber, &DbfBase::DateFormat, &DbfBase::Reverse})
        h->*option = random() % 3 == 0 ? static_cast<i32>(random() % 5) : 0;
    h->CaseInsensitive = random() % 3 == 0;
    h->UpperCaseCallback = random() % 6 == 0 ? markUpper : nullptr;
    h->AfterRead = random() % 8 == 0 ? turnOption : nullptr;
}

TEST(PreparedFilter, FindsWhatThePlainWayFinds) {
    Random random(3);
    const TempDir dir;
    Layout layout{.columns = kColumns, .records = {}};
    for (int i = 0; i < 30; ++i) {
        layout.records.push_back(random() % 4 == 0 ? "*" : " ");
        for (const Column& c : kColumns) layout.records.back() += randomValue(random, c);
    }
    const Table table = openLayout(dir, layout);
    DbfBase* const h = table.get();
    int some = 0;
    for (int i = 0; i < 6000; ++i) {
        ClearAllFilter(h);
        setOptions(h, random);
        const std::string text = randomFilter(random, h);
        const int brackets = h->NoBracketCheck;
        const Records expected = plainly(h, text);
        h->NoBracketCheck = brackets;
        const bool taken = set_filter(h, text.c_str(), nullptr) != nullptr;
        if (!taken && h->AfterRead != nullptr) continue;
        ASSERT_EQ(taken ? filtered(h) : Records{}, expected) << text;
        some += !expected.empty() && expected.size() < layout.records.size();
    }
    EXPECT_GT(some, 500) << "the texts select too little to tell";
}

TEST(PreparedFilter, NumbersAsStoredCompareAsParsed) {
    Random random(4);
    const TempDir dir;
    Layout layout{.columns = {{"FINE", 'N', 20, 7}, {"CASH", 'Y', 8}}, .records = {}};
    for (int i = 0; i < 400; ++i) {
        const std::string number = std::to_string(random() >> random() % 8) + "." +
                                   std::to_string(random()).substr(0, random() % 9);
        layout.records.push_back(padded("", 21 - number.size()) + number +
                                 le(u64{random()} << random() % 32, 8));
    }
    const Table h = openLayout(dir, layout);
    for (u32 i = 0; i < 400; ++i) {
        ClearAllFilter(h.get());
        h->RawNumeric = i % 2;
        ReadRecord(h.get(), i);
        const std::string text = (i % 4 < 2 ? "FINE"s : "CASH"s) + "=<"[i % 3 == 0];
        const std::string filter = text + GetStr(h.get(), i % 4 < 2 ? 0 : 1);
        const Records expected = plainly(h.get(), filter);
        ASSERT_EQ(set_filter(h.get(), filter.c_str(), nullptr), h.get());
        ASSERT_EQ(filtered(h.get()), expected) << filter;
    }
}

}  // namespace
