// Record filters: the language, the views, the limits, and the prepared filter against the plain
// way.
#include <cstring>
#include <random>

#include "support.h"

namespace {

using mira::DbfBase;
using mira::u32;
using mira::u64;
using test::operator""s;
using Records = std::vector<u32>;

Records filtered(const DbfBase* h) { return {h->FilterIndex, h->FilterIndex + h->FilterCount}; }

/// What the plain way finds in the current view.
Records plainly(DbfBase* h, const char* text) {
    const auto work = std::make_unique<mira::FilterWork>();
    Records found;
    h->FilterState = work.get();
    const u32 count = mira::reccount(h);
    for (u32 i = 0; i < count; ++i) {
        mira::ReadRecord(h, i);
        if (mira::ValidRecord(h, text) != 0) {
            found.push_back(mira::recno(h, h->Reverse != 0 ? count - 1 - i : i));
        }
    }
    h->FilterState = nullptr;
    return found;
}

class Filter : public testing::Test {
protected:
    Records select(const std::string& text) {
        mira::ClearAllFilter(h);
        return mira::set_filter(h, text.c_str(), nullptr) == h ? filtered(h) : Records{99};
    }

    test::TempDir dir;
    test::Table table = test::openLayout(
        dir, {.columns = {{"NAME", 'C', 10}, {"PRICE", 'N', 10, 2}, {"QTY", 'N', 5}},
              .records = {" Ann            12.50    1", "*Andrew          5.00    2",
                          " Bob            30.00   20", "                -1.00     "}});
    DbfBase* h = table.get();
};

TEST_F(Filter, Language) {
    // In the last one a value completes the operator.
    for (const std::string& row :
         test::split("PRICE>10:02;PRICE>QTY*2:01;QTY*2<PRICE:;NAME=An:01;NAME==Ann:;"
                     "NAME=='Ann       ':0;NAME~nn:0;NAME^nn:123;NAME~NN:;NAME=:0123;PRICE=abc:;"
                     "(PRICE>10):;PRICE>10&(QTY=1|QTY=2):0;PRICE>10|(QTY=1:;NAME='a&b':;NAME:;"
                     "price >= 12.5 & ( qty = 1 | name <> Bob ):0;PRICE<0:3;PRICE=>12.5:02;"
                     "PRICE=<5:13;PRICE><5:023;PRICE>>5:02;PRICE<<5:3;PRICE~5:1;PRICE^5:1;"
                     "PRICE~<5:13;PRICE~>5:012;PRICE~=5:;PRICE==5:1;NAME~>A:;NAME>B:;NAME>=B:2;"
                     "NAME<B:013;NAME<>An:23;-1=PRICE:;PRICE=-1:3;12.5=PRICE:0;QTY=0:3;"
                     "NAME=LEFT(Andy,3):1;NAME~TRIM( o ):2;PRICE=SQR(5)/5:1;"
                     "QTY=1|QTY=2&PRICE>100:0;(QTY=1|QTY=2)&PRICE>100:;QTY=1&:;2*(QTY=1|QTY=2):01;"
                     "(QTY=1|QTY=2)/2:;QTY=1||QTY=2:01;NAME=\">A\":012")) {
        const std::size_t colon = row.find(':');
        std::string found;
        for (const u32 record : select(row.substr(0, colon))) found += std::to_string(record);
        EXPECT_EQ(found, row.substr(colon + 1)) << row;
    }
    EXPECT_EQ(select(""), Records{});
    h->CaseInsensitive = 1;
    EXPECT_EQ(select("NAME~NN"), (Records{0}));
    h->NoBracketCheck = 1;
    EXPECT_EQ(select("PRICE>10|(QTY=1"), (Records{0, 2}));
}

TEST_F(Filter, Views) {
    const auto every = reinterpret_cast<const char*>(static_cast<std::intptr_t>(-1));
    EXPECT_EQ(mira::set_filter(h, nullptr, nullptr), nullptr);
    EXPECT_EQ(mira::SortBase(h, "NAME", nullptr), 1);
    EXPECT_EQ(mira::set_filter(h, "PRICE>1", nullptr), h);
    EXPECT_EQ(h->SortOrder, nullptr);
    EXPECT_EQ(mira::set_filter(h, "QTY>1", nullptr), h);
    EXPECT_EQ(filtered(h), (Records{1, 2}));
    EXPECT_STREQ(h->FilterText, "PRICE>1&QTY>1");
    EXPECT_EQ(h->FilterState, nullptr);
    mira::ClearFilter(h);
    EXPECT_EQ(mira::set_filter(h, "QTY<20", nullptr), h);
    EXPECT_EQ(filtered(h), (Records{0, 1, 3}));
    mira::ClearFilter(h);
    EXPECT_EQ(mira::set_filter(h, nullptr, nullptr), h);
    EXPECT_EQ(filtered(h), (Records{1}));
    EXPECT_STREQ(h->FilterText, "PRICE>1&QTY>1&QTY<20");
    mira::ClearFilter(h);
    h->SkipDeleted = 1;
    h->Reverse = 1;
    EXPECT_EQ(mira::set_filter(h, every, nullptr), h);
    EXPECT_EQ(filtered(h), (Records{3, 2, 0}));
    EXPECT_STREQ(h->FilterText, "PRICE>1&QTY>1&QTY<20");
    EXPECT_EQ(mira::set_filter(h, "QTY<20", [] { return 1; }), h);
    EXPECT_EQ(h->FilterIndex, nullptr) << "stopped: the table is unfiltered";
    EXPECT_EQ(mira::reccount(h), 4u);
    EXPECT_EQ(select("PRICE>1"), (Records{2, 0}));
    EXPECT_EQ(mira::set_filter(h, h->FilterText, nullptr), h);
    EXPECT_STREQ(h->FilterText, "PRICE>1&PRICE>1");
}

std::string joined(const std::string& condition, int count) {
    std::string text = condition;
    while (--count > 0) text += "&" + condition;
    return text;
}

TEST_F(Filter, Limits) {
    const std::string quotes = "QTY=1" + std::string(1018, '"');
    EXPECT_EQ(select(quotes), (Records{0}));
    EXPECT_EQ(select(joined("QTY=1", 40)), (Records{0}));
    const std::string longest = "NAME^" + std::string(500, 'x');
    EXPECT_EQ(select(longest), (Records{0, 1, 2, 3}));
    EXPECT_EQ(select(longest + "x"), (Records{})) << "the values do not fit";
    EXPECT_EQ(select("QTY<2"), (Records{0, 3}));
    ASSERT_EQ(mira::SortBase(h, "NAME", nullptr), 1);
    for (const std::string& text :
         {quotes + "\"", joined("QTY=1", 41), joined("QTY=1", 3000), "QTY=1|" + quotes + "'",
          std::string(100000, '('), std::string(5000, '&')}) {
        EXPECT_EQ(mira::set_filter(h, text.c_str(), nullptr), nullptr);
    }
    EXPECT_EQ(filtered(h), (Records{0, 3})) << "a refused text changes nothing";
    EXPECT_NE(h->SortOrder, nullptr);
    EXPECT_STREQ(h->FilterText, "QTY<2");
    EXPECT_EQ(mira::ValidRecord(h, "QTY=1") + mira::analizator(h, "QTY=1"), 0) << "no work area";
    EXPECT_EQ(mira::cnd(h, "QTY=1"), '0');
    EXPECT_EQ(plainly(h, joined("QTY=1", 1025).c_str()), (Records{}));
    std::free(mira::ExternalFilter(h, 3));
}

TEST_F(Filter, PlainParts) {
    mira::FilterWork work{};
    h->FilterState = &work;
    mira::ReadRecord(h, 0);
    EXPECT_EQ(mira::analizator(h, "A&(B|C)"), 3);
    EXPECT_EQ((Records{work.Cuts, work.Cuts + 3}), (Records{1, 4, 7}));
    EXPECT_EQ(mira::analizator(h, "A&(B"), 0);
    const std::pair<const char*, char> pieces[] = {
        {"((QTY=LOG(1)", '&'}, {"f(QTY=1", '|'}, {"QTY=1)x)", '|'}, {"QTY=ABS(1)", '\0'}};
    for (const auto& [piece, connective] : pieces) {
        std::strcpy(work.PieceText, piece);
        mira::eval(h, connective);
    }
    EXPECT_STREQ(work.LogicText, "((0*f(1+1)x)+1");
    work.LogicLength = 1020;
    for (int i = 0; i < 9; ++i) mira::eval(h, '|');
    EXPECT_EQ(work.LogicLength, 1023u);
    h->FilterState = nullptr;
}

// Any table, any text, any option: the prepared filter finds what the plain way finds.

using Random = std::mt19937;

const std::string& pick(Random& random, const std::vector<std::string>& list) {
    return list[random() % list.size()];
}

const std::vector<test::Column> kColumns = {
    {"NAME", 'C', 12},     {"LONG", 'C', 44, 1}, {"PRICE", 'N', 10, 2}, {"QTY", 'N', 5},
    {"WIDE", 'N', 100, 3}, {"FRAC", 'N', 3, 2},  {"FINE", 'F', 20, 7},  {"CNT", 'I', 4},
    {"AUTO", '+', 4},      {"CASH", 'Y', 8},     {"DBL", 'B', 8, 3},    {"ORD", 'O', 8},
    {"BORN", 'D', 8},      {"SEEN", 'T', 8},     {"MADE", 'T', 14},     {"FLAG", 'L', 1},
    {"MEMO", 'M', 10},     {"BIN", 'Q', 6},      {"VAR", 'V', 6},       {"SYS", '0', 3}};

std::string randomBytes(Random& random, std::size_t count) {
    std::string bytes;
    while (bytes.size() < count)
        bytes += static_cast<char>(random() % 3 != 0 ? random() % 3 : random());
    return bytes;
}

std::string randomValue(Random& random, const test::Column& c) {
    static const std::vector<std::string> words = test::split(
        "Ann;an; (x;TRIM( a ););<b;=;>;UPPER(q);\xE0\x80;it's;20240305;20240305140709;1;;T");
    static const std::vector<std::string> numbers = test::split(
        ";0;5;-5;500.00;-0.5;.5;5.;123456.789;1e3;0x1A;inf;nan;-;5 5;+7;99999999999999999;"
        "1234567;0.005;2.675;-1;1");
    const std::size_t width = c.type == 'C' ? c.length + 256 * c.decimals : c.length;
    const bool number = c.type == 'N' || c.type == 'F' || c.type == 'M';
    if (random() % 4 == 0 || std::string_view("I+YBO").find(c.type) != std::string_view::npos) {
        return number && random() % 2 != 0 ? std::string(width, ' ') : randomBytes(random, width);
    }
    std::string value = pick(random, number ? numbers : words);
    if (random() % 5 == 0) value += std::to_string(random());
    if (number && random() % 4 != 0 && value.size() < width)
        value.insert(0, width - value.size(), ' ');
    return test::padded(value, width, random() % 8 == 0 ? '\0' : ' ');
}

/// A field in fieldTenths of ten cases, else a value of some record or of none.
std::string randomOperand(Random& random, DbfBase* h, unsigned fieldTenths) {
    static const std::vector<std::string> others = test::split(
        "5;-5;0.5;an;Ann;'<b';\"=\";;TRIM( a );(5;5);UPPER(an;500;2*3;-(1+1);20240305; 1 ;"
        "LEFT(Annabel,3);)");
    const int field = static_cast<int>(random() % kColumns.size());
    std::string operand = kColumns[static_cast<std::size_t>(field)].name;
    if (random() % 10 >= fieldTenths) {
        mira::ReadRecord(h, static_cast<u32>(random() % h->Header.RecordCount));
        operand = random() % 2 != 0 ? pick(random, others) : mira::GetStr(h, field);
        operand.resize(std::min<std::size_t>(operand.size(), 60));
    }
    if (random() % 8 == 0)
        operand += pick(random, {" ", "*2", "+QTY", "'x'", "NAME", "  ", "/0", ")", "("});
    if (random() % 10 == 0) operand.insert(0, pick(random, {" ", "(", "'", "-", "  "}));
    return operand;
}

std::string randomFilter(Random& random, DbfBase* h) {
    static const std::vector<std::string> operators =
        test::split("=;==;>;>>;<;<<;>=;=>;<=;=<;<>;><;~;^;~<;~>;~=;^=;;+;-");
    std::string text;
    for (auto conditions = random() % 5;; --conditions) {
        while (random() % 6 == 0) text += "(";
        text += randomOperand(random, h, 9) + pick(random, operators) + randomOperand(random, h, 3);
        while (random() % 6 == 0) text += ")";
        if (conditions == 0) break;
        text += pick(random, {"&", "|", " & ", "|(", ")&", "&(("});
    }
    const auto missing =
        std::count(text.begin(), text.end(), '(') - std::count(text.begin(), text.end(), ')');
    if (missing > 0 && random() % 4 != 0) text.append(static_cast<std::size_t>(missing), ')');
    return text;
}

int markUpper(char* text, DbfBase*, int) {
    if (*text != 0) *text = 'U';
    return 0;
}

int lowerCase(const char* from, char* to, u32 length) {
    for (u32 i = 0; i < length; ++i) to[i] = static_cast<char>(from[i] | 0x20);
    return 0;
}

int turnOptions(DbfBase* h) {
    if (h->RecordBuffer[1] % 4 == 0) h->NoBracketCheck ^= 1;
    if (h->RecordBuffer[1] % 4 == 1) h->CaseInsensitive ^= 1;
    return 0;
}

void setOptions(DbfBase* h, Random& random) {
    h->CaseInsensitive = random() % 3 == 0;
    h->TrimMode = static_cast<int>(random() % 5);
    h->RawNumeric = random() % 3 == 0;
    h->NoBracketCheck = random() % 3 == 0 ? static_cast<int>(random() % 3) : 0;
    h->OemConvert = random() % 4 == 0;
    h->SkipDeleted = random() % 4 == 0;
    h->MemoAsNumber = random() % 2;
    h->DateFormat = static_cast<int>(random() % 5);
    h->Reverse = random() % 4 == 0;
    h->UpperCaseCallback = random() % 6 == 0 ? markUpper : nullptr;
    h->CharToOemCallback = random() % 2 == 0 ? lowerCase : nullptr;
    h->AfterRead = random() % 8 == 0 ? turnOptions : nullptr;
}

TEST(PreparedFilter, FindsWhatThePlainWayFinds) {
    Random random(3);
    const test::TempDir dir;
    test::Layout layout{.columns = kColumns, .records = {}};
    for (int i = 0; i < 30; ++i) {
        std::string record = random() % 4 == 0 ? "*" : " ";
        for (const test::Column& c : kColumns) record += randomValue(random, c);
        layout.records.push_back(record);
    }
    const test::Table table = test::openLayout(dir, layout);
    DbfBase* const h = table.get();
    ASSERT_NE(h, nullptr);
    std::size_t some = 0;
    for (int i = 0; i < 5000; ++i) {
        mira::ClearAllFilter(h);
        setOptions(h, random);
        const std::string text = randomFilter(random, h);
        const int brackets = h->NoBracketCheck;
        const mira::u8 folds = h->CaseInsensitive;
        const Records expected = plainly(h, text.c_str());
        h->NoBracketCheck = brackets;
        h->CaseInsensitive = folds;
        const bool taken = mira::set_filter(h, text.c_str(), nullptr) != nullptr;
        ASSERT_EQ(taken ? filtered(h) : Records{}, expected) << text;
        if (!expected.empty() && expected.size() < layout.records.size()) ++some;
    }
    EXPECT_GT(some, 500u) << "the texts select too little to tell";
}

TEST(PreparedFilter, NumbersAsStoredCompareAsParsed) {
    Random random(4);
    const test::TempDir dir;
    test::Layout layout{.columns = {{"FINE", 'N', 20, 7}, {"CASH", 'Y', 8}}, .records = {}};
    const auto digits = [&random] { return std::to_string(random() >> random() % 8); };
    for (int i = 0; i < 400; ++i) {
        const std::string number = digits() + "." + digits().substr(0, random() % 9);
        layout.records.push_back(" " + std::string(21 - number.size(), ' ').substr(1) + number +
                                 test::le(u64{random()} << random() % 32, 8));
    }
    const test::Table table = test::openLayout(dir, layout);
    DbfBase* const h = table.get();
    for (u32 i = 0; i < 400; ++i) {
        mira::ClearAllFilter(h);
        h->RawNumeric = i % 2;
        mira::ReadRecord(h, i);
        const std::string value = mira::GetStr(h, i / 2 % 2);
        const std::string text = (i / 2 % 2 != 0 ? "CASH" : "FINE") + (i % 3 != 0 ? "="s : "<"s);
        const Records expected = plainly(h, (text + value).c_str());
        ASSERT_EQ(mira::set_filter(h, (text + value).c_str(), nullptr), h);
        ASSERT_EQ(filtered(h), expected) << text << value;
    }
}

}  // namespace
