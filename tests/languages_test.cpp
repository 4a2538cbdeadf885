// The languages in examples, which bind the reference as well as the library; what is left is the
// matter of the properties in fuzz/.
#include <chrono>
#include <cmath>
#include <thread>

#include "cases.h"

namespace test {
namespace {

TEST(Arithmetic, Cases) {
    for (const auto& row : cases("arithmetic")) {
        std::string text = row[0];
        int status = 7;
        const double value = parse(text.data(), &status);
        const bool fails = row[1] == "fails";
        const double wanted = fails ? 0.0 : std::strtod(row[1].c_str(), nullptr);
        EXPECT_EQ(status, fails ? 0 : 7) << row[0] << ": success leaves the flag alone";
        EXPECT_EQ(arithmetic(row[0]).has_value(), !fails) << row[0];
        for (const double got : {value, arithmetic(row[0]).value_or(0.0)}) {
            EXPECT_TRUE(got == wanted || (std::isnan(got) && std::isnan(wanted)))
                << row[0] << ": " << got;
            EXPECT_TRUE(std::isnan(got) || std::signbit(got) == std::signbit(wanted)) << row[0];
        }
    }
}

TEST(Arithmetic, EveryShortText) {
    const std::string tokens = "+-*/^:()2.E ";
    std::string text;
    const auto check = [&](const auto& self, int more) -> void {
        std::string copy = text;
        int status = 1;
        const double value = parse(copy.data(), &status);
        const std::optional<double> wanted = arithmetic(text);
        ASSERT_EQ(status != 0, wanted.has_value()) << text;
        ASSERT_TRUE(!wanted || value == *wanted || std::isnan(value)) << text;
        for (std::size_t i = 0; more > 0 && i < tokens.size(); ++i) {
            text += tokens[i];
            self(self, more - 1);
            text.pop_back();
        }
    };
    check(check, 5);
}

TEST(StringFunctions, Cases) {
    DbfBase h{};  // only DateFormat is looked at
    for (const auto& row : cases("strings")) {
        std::string text = row[1];
        h.DateFormat = std::stoi(row[0]);
        EXPECT_EQ(StrEval(text.data(), &h), row[2]) << row[1];
        EXPECT_EQ(evaluated(row[1], h.DateFormat), row[2]) << row[1];
    }
}

TEST(StringFunctions, DepthCostsNeitherStackNorTime) {
    constexpr int depth = 100000;
    DbfBase h{};
    const std::string filler(400000, 'x');
    const std::pair<std::string, std::string> deep[] = {
        {repeat("CAP(", depth) + filler, "X" + filler.substr(1)},
        {repeat("SUBSTR(x", depth) + filler + repeat(",1)", depth), filler},
        {repeat("LTRIM( a", depth) + filler, repeat("a", depth) + filler}};
    const auto start = std::chrono::steady_clock::now();
    for (auto [text, result] : deep) EXPECT_EQ(StrEval(text.data(), &h), result);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST(CodePages, AreInverse) {
    std::string text = "\x41\x7F\x80\xAF\xB0\xDF\xE0\xEF\xF0\xFF", oem = text;
    OemToCharBuff(oem.data(), text.data(), 10);
    EXPECT_EQ(text, "\x41\x7F\xC0\xEF\x80\xAF\xF0\xFF\xB0\xBF");
    CharToOemBuff(text.data(), text.data(), 10);
    EXPECT_EQ(text, oem);
}

TEST(Tokenizer, TakesTokensPerThread) {
    char text[] = "a+(b\xFF)";
    EXPECT_STREQ(mirastrtok(text, "+()"), "a");
    std::thread([] { EXPECT_EQ(mirastrtok(nullptr, " "), nullptr) << "no text yet"; }).join();
    EXPECT_STREQ(mirastrtok(nullptr, "+()"), "b\xFF");
    EXPECT_EQ(mirastrtok(nullptr, "+()"), nullptr);
}

struct CalcFields : testing::Test {
    CalcFields() {
        EXPECT_EQ(ReadRecord(h, 0), 1);
        EXPECT_EQ(GetMemCalcField(h), 1);
    }
    ~CalcFields() override { FreeMemCalcField(h); }

    std::string text(const std::string& expression) {
        DelCalcField(h, "X");
        EXPECT_EQ(AddCalcField(h, "X", expression.c_str()), 1);
        return str(GetCalcString(h, "x"));
    }

    Folder folder;
    Table table =
        openLayout(folder, {0x03,
                            {{"NAME", 'C', 10},
                             {"PRICE", 'N', 10, 2},
                             {"QTY", 'N', 5},
                             {"BORN", 'D', 8},
                             {"WIDE_SIZES", 'N', 100, 2}},
                            {" Ann            12.50    320240305" + padded("", 96) + "1.25"}});
    DbfBase* h = table.get();
};

TEST_F(CalcFields, Cases) {
    for (const auto& row : cases("calculated")) {
        EXPECT_EQ(text(row[0]), row[1]) << row[0];
        EXPECT_EQ(calculated(current(h), row[0]).value_or("(null)"), row[1]) << row[0];
        EXPECT_EQ(GetCalcValue(h, "X"), std::stod(row[2])) << row[0];
        EXPECT_EQ(calculatedValue(current(h), row[0]), std::stod(row[2])) << row[0];
    }
}

TEST_F(CalcFields, SlotsAreFilledFromFieldCountOn) {
    for (const char* name : {"price/2", "B", "b"}) EXPECT_EQ(AddCalcField(h, name, name), 1);
    EXPECT_EQ(AddCalcField(h, nullptr, "3"), 0);
    EXPECT_EQ(AddCalcField(h, "c", nullptr), 0);
    EXPECT_EQ(GetCalcI(h, "b"), 6) << "the lower slot of two equal names";
    EXPECT_EQ(GetCalcI(h, "none"), -1);
    EXPECT_STREQ(GetFieldName(h, 6), "B");
    EXPECT_EQ(if_digit_calc(h, "PRICE/2"), 1);
    EXPECT_EQ(if_digit_calc(h, "B"), 0);
    EXPECT_STREQ(GetStr(h, 5), "            6.250000");
    EXPECT_EQ(GetValue(h, 5), 6.25);
    EXPECT_EQ(GetSign(h, 5), 1);
    for (const int none : {-1, 0, 8, 2048}) {
        DelCalcFieldI(h, none);
        EXPECT_EQ(GetCalcStringI(h, none), nullptr) << none;
        EXPECT_EQ(GetCalcValueI(h, none) + if_digit_calci(h, none), 0.0) << none;
    }
    for (const u8 flag : h->CalcFields->Slots[5].Flags) EXPECT_EQ(flag, 1);
    DelCalcField(h, "Price/2");
    for (const u8 flag : h->CalcFields->Slots[5].Flags) EXPECT_EQ(flag, 0);
    EXPECT_EQ(h->CalcFields->Count, 2u);
    while (AddCalcField(h, "n", "n") != 0) continue;
    EXPECT_EQ(h->CalcFields->Count, 2048u - 5);
    EXPECT_EQ(GetCalcI(h, "n"), 5) << "the lowest empty slot";
    EXPECT_EQ(GetMemCalcField(h), 1) << "an empty table takes the place of the old one";
    EXPECT_EQ(h->CalcFields->Count, 0u);
    for (int i = 0; i < 2; ++i) FreeMemCalcField(h);
    EXPECT_EQ(h->CalcFields, nullptr);
    EXPECT_EQ(AddCalcField(h, "a", "1"), 0);
    EXPECT_EQ(GetMemCalcField(nullptr), 0);
}

TEST_F(CalcFields, LimitsAndOptions) {
    EXPECT_EQ(text(repeat("NAME ", 3000)), "(null)") << "11 characters each";
    EXPECT_EQ(text(repeat("x", 32767)), repeat("x", 32767));
    EXPECT_EQ(text(repeat("x", 32768)), "(null)");
    EXPECT_EQ(text(repeat("(", 30000) + "NAME"), "Ann       ");
    h->CharToOemCallback = [](const char*, char* to, u32 length) {
        return int{*to = static_cast<char>('0' + length % 10)};
    };
    h->OemConvert = 1;
    EXPECT_EQ(text("'B'BORN"), "B80240305") << "values are converted, literals are not";
    char out[32768];
    int numeric = 7;
    EXPECT_EQ(makecalcstring(h, "'a>b'NAME>=PRICE*2", out, &numeric), 13);
    EXPECT_STREQ(out, "a>b0nn       >=     12.50*2");
    EXPECT_EQ(numeric, 1);
    EXPECT_EQ(makecalcstring(h, "NAME", out, &numeric), -1);
    EXPECT_EQ(numeric, 0);
}

using Records = std::vector<u32>;

struct Filter : testing::Test {
    Records found() const { return {h->FilterIndex, h->FilterIndex + h->FilterCount}; }
    Records select(const std::string& text) {
        ClearAllFilter(h);
        return set_filter(h, text.c_str(), nullptr) == h ? found() : Records{99};
    }

    Folder folder;
    Layout layout{0x03,
                  {{"NAME", 'C', 10}, {"PRICE", 'N', 10, 2}, {"QTY", 'N', 5}},
                  {" Ann            12.50    1", "*Andrew          5.00    2",
                   " Bob            30.00   20", "                -1.00     "}};
    Table table = openLayout(folder, layout);
    DbfBase* h = table.get();
};

TEST_F(Filter, Cases) {
    for (const auto& row : cases("filter")) {
        const std::string options = row.size() > 2 ? row[2] : "";
        const auto chosen = [&](char option) { return options.find(option) != options.npos; };
        h->CaseInsensitive = chosen('i');
        h->SkipDeleted = chosen('d');
        h->TrimMode = chosen('t');
        h->NoBracketCheck = chosen('n');
        std::string seen, told;
        for (const u32 r : select(row[0])) seen += std::to_string(r);
        for (u32 r = 0; r < 4; ++r)
            if (passes({h, layout.records[r]}, row[0])) told += std::to_string(r);
        EXPECT_EQ(seen, row[1]) << row[0] << options;
        EXPECT_EQ(told, row[1]) << row[0] << options;
    }
}

constexpr const char* kFaults[] = {"None",     "NoOperator", "UnknownField",       "ComposedLeft",
                                   "Brackets", "Quotes",     "ConnectiveInQuotes", "TooLong"};

/// The conditions of a filter: field, operator and right side of each.
std::string conditionsOf(DbfBase* h, const std::string& filter) {
    std::string all;
    int field = 0;
    u32 sign = 0, right = 0, end = 0;
    for (u32 i = 0; GetFilterCondition(h, filter.c_str(), i, &field, &sign, &right, &end) != 0;
         ++i) {
        all += (i == 0 ? "" : "; ") + std::to_string(field) + " [" +
               filter.substr(sign, right - sign) + "] " + filter.substr(right, end - right);
    }
    return all;
}

TEST_F(Filter, FaultsAndConditions) {
    ASSERT_EQ(GetMemCalcField(h), 1);
    ASSERT_EQ(AddCalcField(h, "TWICE", "QTY*2"), 1);
    FilterFault fault{};
    u32 first = 0, end = 0;
    for (const auto& row : cases("faults")) {
        EXPECT_EQ(CheckFilter(h, row[0].c_str(), &fault, &first, &end), row[1] == "None" ? 1 : 0);
        EXPECT_EQ(kFaults[static_cast<std::size_t>(fault)], row[1]) << row[0];
        ASSERT_TRUE(first <= end && end <= row[0].size()) << row[0];
        EXPECT_EQ(row[0].substr(first, end - first), row[2]) << row[0];
        EXPECT_EQ(conditionsOf(h, row[0]), row[3]) << row[0];
    }
    const std::string wide = "NAME~" + repeat("x", 501), piece = "QTY=1" + repeat("1", 1019);
    const std::string many = repeat("QTY=1&", 40) + "QTY=1";
    for (const auto& [text, fits] : {std::pair(wide.substr(1), false),
                                     {wide, false},
                                     {wide.substr(0, wide.size() - 1), true},
                                     {piece, false},
                                     {many, false},
                                     {repeat("&", 5000), false}}) {
        EXPECT_EQ(CheckFilter(h, text.c_str(), &fault, &first, &end), fits) << text.substr(0, 9);
        const FilterFault wanted = fits             ? FilterFault::None
                                   : text[0] == 'A' ? FilterFault::UnknownField
                                                    : FilterFault::TooLong;
        EXPECT_EQ(fault, wanted) << text.substr(0, 9);
    }
    h->TrimMode = 1;
    EXPECT_EQ(CheckFilter(h, wide.c_str(), &fault, &first, &end), 1) << "values may be shorter";
    h->NoBracketCheck = 1;
    EXPECT_EQ(CheckFilter(h, "QTY=1)", &fault, &first, &end), 1);
    EXPECT_EQ(CheckFilter(h, nullptr, &fault, &first, &end), 0) << "no text to apply";
    EXPECT_EQ(set_filter(h, "QTY>1", nullptr), h);
    EXPECT_EQ(CheckFilter(h, nullptr, &fault, &first, &end), 1);
    const char* const all = reinterpret_cast<char*>(std::intptr_t{-1});
    EXPECT_EQ(CheckFilter(h, all, &fault, &first, &end), 1);
    int field = 0;
    EXPECT_EQ(GetFilterCondition(h, all, 0, &field, &first, &first, &end), 0);
    FreeMemCalcField(h);
}

TEST(Functions, AreKnownByName) {
    for (const char* name :
         {"trim", "LTRIM", "Rtrim", "SUBSTR",    "left",  "right", "upper", "lower",
          "cap",  "dtos",  "space", "replicate", "abs",   "sqr",   "sqrt",  "exp",
          "log",  "log10", "pow10", "round",     "trunc", "sin",   "cos",   "tan",
          "asin", "acos",  "atan",  "sinh",      "cosh",  "tanh"})
        EXPECT_EQ(IsFunction(name), 1) << name;
    for (const char* name : {"", "TRIM(", "TRI", "TRIMS", "LOG1", "LOG100", "PRICE"})
        EXPECT_EQ(IsFunction(name), 0) << name;
    EXPECT_EQ(IsFunction(nullptr), 0);
}

TEST_F(Filter, SeesWhatAHookPutsBehindTheRecord) {
    EXPECT_STREQ(GetFilterSigns(), "=><~^");
    EXPECT_EQ(AddTestField(h, "ODD"), h->Header.RecordLength);
    h->AfterRead = [](DbfBase* base) {
        base->RecordBuffer[base->Header.RecordLength] = GetNumeric(base, 2) == 1 ? 'y' : 'n';
        return 0;
    };
    EXPECT_EQ(select("ODD=y"), Records{0});
    EXPECT_EQ(select("ODD=n"), (Records{1, 2, 3}));
    DropTestFields(h);
    h->AfterRead = nullptr;
    EXPECT_EQ(GetFieldNum(h, "ODD"), 0xFFFFFFFF);
    EXPECT_EQ(ViewRecords(h, 1, 3), 1);
    EXPECT_EQ(found(), (Records{1, 2}));
    SetFieldName(h, 0, "OTHER");
    EXPECT_EQ(GetFieldNum(h, "other"), 0u);
}

TEST_F(Filter, NarrowsTheViewStepByStep) {
    EXPECT_EQ(SortBase(h, "NAME", nullptr), 1);
    for (const char* text : {"PRICE>1", "QTY>1"}) EXPECT_EQ(set_filter(h, text, nullptr), h);
    EXPECT_EQ(h->SortOrder, nullptr);
    EXPECT_EQ(found(), (Records{1, 2}));
    ClearFilter(h);
    EXPECT_EQ(reccount(h), 4u);
    EXPECT_EQ(set_filter(h, nullptr, nullptr), h);
    EXPECT_EQ(found(), (Records{1, 2})) << "all texts once more";
    ClearFilter(h);
    h->SkipDeleted = h->Reverse = 1;
    EXPECT_EQ(set_filter(h, reinterpret_cast<char*>(std::intptr_t{-1}), nullptr), h);
    EXPECT_EQ(found(), (Records{3, 2, 0}));
    EXPECT_EQ(set_filter(h, "QTY<20", [] { return 1; }), h);
    EXPECT_EQ(h->FilterIndex, nullptr) << "stopped: the table is unfiltered";
    EXPECT_STREQ(h->FilterText, "PRICE>1&QTY>1&QTY<20");
    ClearAllFilter(h);
    EXPECT_EQ(set_filter(h, nullptr, nullptr), nullptr) << "no text to apply";
}

DbfBase* sorted = nullptr;

TEST_F(Filter, ACallbackThatSortsLeavesNoOrder) {
    sorted = h;
    const auto sort = [] {
        return sorted->SortOrder == nullptr && SortBase(sorted, "QTY", nullptr) == 0 ? 1 : 0;
    };
    EXPECT_EQ(set_filter(h, "QTY>1", sort), h);
    EXPECT_EQ(h->SortOrder, nullptr);
    EXPECT_EQ(found(), (Records{1, 2}));
}

TEST_F(Filter, RefusedTextsChangeNothing) {
    const std::string piece = "QTY=1" + repeat("\"", 1018);
    EXPECT_EQ(select(piece), (Records{0})) << "1023 characters";
    EXPECT_EQ(select("QTY<2"), (Records{0, 3}));
    ASSERT_EQ(SortBase(h, "NAME", nullptr), 1);
    for (const std::string& text : {piece + "\"", "QTY=1|" + piece + "'",
                                    repeat("QTY=1&", 40) + "QTY=1", repeat("&", 5000)}) {
        EXPECT_TRUE(isRefused(h, text));
        EXPECT_EQ(set_filter(h, text.c_str(), nullptr), nullptr);
    }
    EXPECT_EQ(found(), (Records{0, 3}));
    EXPECT_NE(h->SortOrder, nullptr);
    EXPECT_STREQ(h->FilterText, "QTY<2");
}

TEST_F(Filter, WorksPieceByPieceInItsWorkArea) {
    EXPECT_EQ(ReadRecord(h, 0), 1);
    EXPECT_EQ(ValidRecord(h, "QTY=1"), 0) << "no work area";
    EXPECT_EQ(analizator(h, "QTY=1"), 0);
    FilterWork work{};
    h->FilterState = &work;
    EXPECT_EQ(cnd(h, "QTY=1"), '1');
    EXPECT_EQ(cnd(h, "QTY=2"), '0');
    EXPECT_EQ(analizator(h, "A&(B|C)"), 3);
    EXPECT_EQ((Records{work.Cuts, work.Cuts + 3}), (Records{1, 4, 7}));
    EXPECT_EQ(analizator(h, "A&(B"), 0);
    for (const char* piece : {"((QTY=1", "QTY=2)"}) {
        std::snprintf(work.PieceText, sizeof work.PieceText, "%s", piece);
        eval(h, '|');
    }
    EXPECT_STREQ(work.LogicText, "((1+0)+");
    h->FilterState = nullptr;
    const std::unique_ptr<void, decltype(&std::free)> block(ExternalFilter(h, 9), std::free);
    EXPECT_NE(block, nullptr);
}

}  // namespace
}  // namespace test
