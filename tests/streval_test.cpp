// String functions, code pages and the tokenizer.
#include <strings.h>

#include <chrono>
#include <random>
#include <thread>

#include "support.h"

using namespace mira;
using namespace test;

namespace {

std::string evaluate(std::string text, int dateFormat = 0) {
    static DbfBase h;  // only DateFormat is looked at
    h.DateFormat = dateFormat;
    return StrEval(text.data(), &h);
}

const char kResults[] =
    "ltrim(  a )=a ;rTrim( a  )= a;TRIM(   )=;SUBSTR(hello,2)=llo;SUBSTR(hello,9,2)=;"
    "SUBSTR(hello,-1,2)=;SUBSTR(hello,1,-1)=ello;SUBSTR( hello, 0,3)= he;SUBSTR(hello)=hello;"
    "SUBSTR(hello,-99999999999,1)=;SUBSTR(hello,0,4294967297)=hello;SUBSTR(hello,x,2,9)=he;"
    "LEFT(hello,9)=hello;LEFT(hello,-1)=hello;LEFT(hello,0)=;RIGHT(hello,2)=lo;RIGHT(hello,0)=;"
    "RIGHT(hello,-3)=;RIGHT(hello,99999999999)=hello;SPACE(5)=5;REPLICATE(ab)=ab;"
    "CAP(o'neil-smith\tx)=O'neil-smith\tX;UPPER(\xE0z)LOWER(CD)=\xE0Zcd;=;)(=)(;TRIM( a(b =a(b;"
    "LEFT(UPPER(abc),TRIM( 2 ))=AB;RIGHT(SUBSTR(a,b,1),2)=a";

/// The date format, then the text.
const char kDates[] =
    "1DTOS(24.12.2013 08:30:15)=20131224083015;2DTOS(12/24/2013)=20131224;"
    "3DTOS(2013.12.24 08:30:15)=20131224083015;4DTOS(20131224083015)=20131224083015;"
    "9DTOS(2013122499)=20131224;1DTOS(4.12.2013)=4.12.2013;1DTOS(24.12.2013 08)=24.12.2013 08;"
    "0DTOS(201312)=201312;0DTOS()=";

TEST(StringFunctions, Results) {
    for (const auto& [text, result] : rows(kResults)) EXPECT_EQ(evaluate(text), result) << text;
    for (const auto& [text, result] : rows(kDates))
        EXPECT_EQ(evaluate(text.substr(1), text[0] - '0'), result) << text;
}

/// The rule itself, by recursion.
std::string plain(const std::string& text) {
    static const std::pair<std::string, char* (*)(char*, DbfBase*)> functions[] = {
        {"TRIM(", Trim}, {"LTRIM(", LTrim}, {"SUBSTR(", SubStr}, {"CAP(", CapitalizeMy}};
    for (std::size_t i = 0; i < text.size(); ++i) {
        for (const auto& [opener, function] : functions) {
            if (strncasecmp(text.c_str() + i, opener.c_str(), opener.size()) != 0) continue;
            const std::size_t start = i + opener.size();
            std::size_t end = start;
            for (int depth = 1; end < text.size(); ++end) {
                depth += (text[end] == '(') - (text[end] == ')');
                if (depth == 0) break;
            }
            std::string argument = plain(text.substr(start, end - start));
            return text.substr(0, i) + function(argument.data(), nullptr) +
                   plain(text.substr(std::min(end + 1, text.size())));
        }
    }
    return text;
}

TEST(StringFunctions, OnePassGivesWhatTheRuleGives) {
    const std::vector<std::string> parts =
        split("TRIM(;ltrim(;SUBSTR(;Cap(;););););(;,1;,2;,; ;  ;aB;-1;LONG text ");
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
    EXPECT_EQ(evaluate(repeat("CAP(", depth) + filler), "X" + filler.substr(1));
    EXPECT_EQ(evaluate(repeat("SUBSTR(x", depth) + filler + repeat(",1)", depth)), filler);
    EXPECT_EQ(evaluate(repeat("LTRIM( a", depth) + filler), repeat("a", depth) + filler);
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

}  // namespace
