// String functions, code pages and the tokenizer.
#include <strings.h>

#include <chrono>
#include <random>
#include <thread>

#include "support.h"

namespace {

using mira::DbfBase;

std::string evaluate(std::string text, int dateFormat = 0) {
    static DbfBase h;  // only DateFormat is looked at
    h.DateFormat = dateFormat;
    return mira::StrEval(text.data(), &h);
}

std::string repeat(std::string_view part, int count) {
    std::string out;
    for (int i = 0; i < count; ++i) out += part;
    return out;
}

TEST(StringFunctions, Results) {
    for (const std::string& row :
         test::split("Name: TRIM(  Ann  )!=Name: Ann!;ltrim(  a )=a ;rTrim( a  )= a;TRIM(   )=;"
                     "SUBSTR(hello,1,3)=ell;SUBSTR(hello,2)=llo;SUBSTR(hello,9,2)=;"
                     "SUBSTR(hello,-1,2)=;SUBSTR(hello,1,-1)=ello;SUBSTR( hello,0,3)= he;"
                     "SUBSTR(hello, 1, 2)=el;SUBSTR(hello)=hello;SUBSTR(hello,99999999999,1)=;"
                     "SUBSTR(hello,-99999999999,1)=;SUBSTR(hello,1,99999999999)=ello;"
                     "SUBSTR(hello,0,4294967297)=hello;SUBSTR(hello,x,2,9)=he;LEFT(hello,3)=hel;"
                     "LEFT(hello,5)=hello;LEFT(hello,9)=hello;LEFT(hello,-1)=hello;"
                     "LEFT(hello,0)=;LEFT(hello)=hello;RIGHT(hello,2)=lo;RIGHT(hello,5)=hello;"
                     "RIGHT(hello,9)=hello;RIGHT(hello,0)=;RIGHT(hello,-3)=;"
                     "RIGHT(hello,99999999999)=hello;SPACE(5)=5;REPLICATE(ab)=ab;"
                     "CAP(hello WORLD)=Hello World;CAP(o'neil-smith\tx)=O'neil-smith\tX;"
                     "UPPER(ab)LOWER(CD)=ABcd;XTRIM( a)=Xa;TRIM ( a)=TRIM ( a);"
                     "UPPER(\xE0z)=\xE0Z;=;)(=)(;UPPER(TRIM( a ))=A;UPPER(a(b)c)d=A(B)Cd;"
                     "UPPER(TRIM(a=A;TRIM( a(b =a(b;SUBSTR(TRIM(  abc ),1,1)=b;"
                     "CAP(LOWER(AB)UPPER(cd))=Abcd;LEFT(UPPER(abc),TRIM( 2 ))=AB;"
                     "TRIM(  TRIM(  x)y  )z)=xyz);"
                     "aaTRIM( b LTRIM(   long text) c )d=aab long text cd;"
                     "RIGHT(SUBSTR(a,b,1),2)=a;LEFT(DTOS(2013,12,24),3)=2013")) {
        const std::size_t equals = row.find('=');
        EXPECT_EQ(evaluate(row.substr(0, equals)), row.substr(equals + 1)) << row;
    }
}

TEST(StringFunctions, Dates) {
    for (const std::string& row : test::split(  // the format first
             "1DTOS(24.12.2013)=20131224;1DTOS(24.12.2013 08:30:15)=20131224083015;"
             "2DTOS(12/24/2013)=20131224;3DTOS(2013.12.24)=20131224;"
             "3DTOS(2013.12.24 08:30:15)=20131224083015;0DTOS(20131224)=20131224;"
             "4DTOS(20131224083015)=20131224083015;9DTOS(2013122499)=20131224;"
             "1DTOS(4.12.2013)=4.12.2013;1DTOS(24.12.2013 08)=24.12.2013 08;"
             "0DTOS(201312)=201312;0DTOS()=")) {
        const std::size_t equals = row.find('=');
        EXPECT_EQ(evaluate(row.substr(1, equals - 1), row[0] - '0'), row.substr(equals + 1)) << row;
    }
    char date[] = "24.12.2013";
    EXPECT_STREQ(mira::DtoS(date, nullptr), "24.12.20") << "without a handle, as with format 0";
}

/// The rule itself, by recursion.
std::string plain(const std::string& text) {
    using Function = char* (*)(char*, DbfBase*);
    static const std::pair<std::string, Function> functions[] = {
        {"TRIM(", mira::Trim},     {"LTRIM(", mira::LTrim},   {"RTRIM(", mira::RTrim},
        {"SUBSTR(", mira::SubStr}, {"LEFT(", mira::StrLeft},  {"RIGHT(", mira::StrRight},
        {"UPPER(", mira::UpperMy}, {"LOWER(", mira::LowerMy}, {"CAP(", mira::CapitalizeMy},
    };
    for (std::size_t i = 0; i < text.size(); ++i) {
        for (const auto& [opener, function] : functions) {
            if (strncasecmp(text.c_str() + i, opener.c_str(), opener.size()) != 0) continue;
            const std::size_t start = i + opener.size();
            std::size_t end = start;
            for (int depth = 1; end < text.size(); ++end) {
                depth += text[end] == '(' ? 1 : text[end] == ')' ? -1 : 0;
                if (depth == 0) break;
            }
            std::string argument = plain(text.substr(start, end - start));
            const std::string rest = end < text.size() ? text.substr(end + 1) : "";
            return text.substr(0, i) + function(argument.data(), nullptr) + plain(rest);
        }
    }
    return text;
}

TEST(StringFunctions, OnePassGivesWhatTheRuleGives) {
    const std::vector<std::string> parts = {
        "TRIM(", "ltrim(", "RTRIM(", "SUBSTR(", "LEFT(", "RIGHT(", "UPPER(",    "LOWER(",
        "CAP(",  ")",      ")",      ")",       ")",     "(",      ",1",        ",2",
        ",",     " ",      "  ",     "aB",      "word",  "-1",     "LONG text "};
    std::mt19937 random(2);
    for (int i = 0; i < 50000; ++i) {
        std::string text;
        for (auto n = random() % 25; n > 0; --n) text += parts[random() % parts.size()];
        ASSERT_EQ(evaluate(text), plain(text)) << text;
    }
}

TEST(StringFunctions, DepthCostsNeitherStackNorTime) {
    constexpr int depth = 100000;
    const std::string filler(400000, 'x');
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(evaluate(repeat("CAP(", depth) + filler + repeat(")", depth)),
              "X" + filler.substr(1));
    EXPECT_EQ(evaluate(repeat("LTRIM( ", depth) + filler + repeat(")", depth)), filler);
    EXPECT_EQ(evaluate(repeat("SUBSTR(x", depth) + filler + repeat(",1)", depth)), filler);
    EXPECT_EQ(evaluate(repeat("LTRIM( a", depth) + filler), repeat("a", depth) + filler);
    EXPECT_EQ(evaluate(repeat("TRIM((", depth)), repeat("(", depth));
    EXPECT_EQ(evaluate(repeat(")", depth)), repeat(")", depth));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST(CodePages, AreInverse) {
    std::string oem = "\x41\x7F\x80\xAF\xB0\xDF\xE0\xEF\xF0\xFF";
    std::string ansi(oem.size(), 0);
    const auto length = static_cast<mira::u32>(oem.size());
    mira::OemToCharBuff(oem.data(), ansi.data(), length);
    EXPECT_EQ(ansi, "\x41\x7F\xC0\xEF\x80\xAF\xF0\xFF\xB0\xBF");
    mira::CharToOemBuff(ansi.data(), ansi.data(), length);
    EXPECT_EQ(ansi, oem);
}

TEST(Tokenizer, TakesTokensPerThread) {
    char text[] = "a+b*(cd)";
    const char* delimiters = "+-*/() ";
    EXPECT_STREQ(mira::mirastrtok(text, delimiters), "a");
    std::thread([&] {
        char other[] = " +\xFFx\xFE ";
        EXPECT_EQ(mira::mirastrtok(nullptr, delimiters), nullptr) << "no text yet";
        EXPECT_STREQ(mira::mirastrtok(other, "+ \xFE"), "\xFFx");
    }).join();
    EXPECT_STREQ(mira::mirastrtok(nullptr, delimiters), "b");
    EXPECT_STREQ(mira::mirastrtok(nullptr, delimiters), "cd");
    EXPECT_EQ(mira::mirastrtok(nullptr, delimiters), nullptr);
    EXPECT_EQ(mira::mirastrtok(nullptr, delimiters), nullptr);
    char none[] = "+-(";
    EXPECT_EQ(mira::mirastrtok(none, delimiters), nullptr);
}

}  // namespace
