// Arithmetic expressions: values, failures, limits, and what happens to the text and the flag.
#include <bit>
#include <cmath>
#include <cstdlib>
#include <random>

#include "support.h"

using namespace test;

namespace {

struct Result {
    double value;
    int status;
    std::string text;
};

Result run(std::string text) {
    int status = 7;
    const double value = mira::Evaluate(text.data(), &status);
    return {value, status, text.c_str()};
}

const char kValues[] =
    "10/4=2.5;2-3-4=-5;8/4/2=1;2^-1=0.5;2*-3=-6;2--3=5;-SQR(2)=-4;-(2)=-2;-1E308/1E-10=-inf;"
    "1E308*10=inf;LOG(1)=0;POW10(2)=1024;SQRT(9)=3;ABS(-2.5)=2.5;EXP(0)=1;TRUNC(-2.7)=-2;"
    "ROUND(2.5)=3;ROUND(-2.5)=-2;ROUND(-2.7)=-2;ROUND(1E10+0.6)=10000000001;"
    "ROUND(-3E9-0.7)=-3000000001;TRUNC(-3E9-0.7)=-3e9;ROUND(2147483647.4)=2147483647;"
    "TRUNC(1E300)=1e300;TRUNC(1E308*10)=inf;ACOS(1)=0;ASIN(0)=0;ATAN(0)=0;COS(0)=1;TAN(0)=0;"
    "COSH(0)=1;SINH(0)=0;TANH(0)=0;sin (0)=0;1e+2=100;2E=2;2E+=2;2E-=2;5.=5;.5=0.5;  7  =7;"
    "1E999=inf;1E-999=0;0E999=0;0/3=0;TRUNC(-0.5)=0;-0=-0;SQRT(-1)=nan;(-1)^0.5=nan;"
    "ROUND(SQRT(-1))=nan;TRUNC(SQRT(-1))=nan;LOG(-1)=nan";

TEST(Arithmetic, Values) {
    for (const auto& [text, value] : rows(kValues)) {
        const Result r = run(text);
        const double expected = std::strtod(value.c_str(), nullptr);
        EXPECT_TRUE(r.value == expected || (std::isnan(r.value) && value == "nan")) << text;
        EXPECT_TRUE(std::isnan(expected) || 1 / r.value == 1 / expected) << text << ": sign of 0";
        EXPECT_EQ(r.status, 7) << text << ": success leaves the flag alone";
    }
    EXPECT_EQ(run("sin (0)").text, "SIN (0)");
}

TEST(Arithmetic, LimitsAndFailures) {
    const std::string longest = repeat("1+", 39) + "1", abs = repeat("abs(", 13);
    EXPECT_EQ(run(longest).value, 40) << "79 characters";
    EXPECT_EQ(run(repeat("(", 27) + "1" + repeat(")", 27)).value, 1);
    EXPECT_EQ(run(abs + "1" + repeat(")", 13)).value, 1);
    EXPECT_EQ(run(repeat("2^", 13) + "1").value, HUGE_VAL);
    std::vector<std::string> failing = split(
        ";   ;--2;3:4;1.2.3;.;.E5;ABS;absx(1);abs 1;-1/0;0/0;1/(2-2);1E308/0.1;1E1234;1\t+2;"
        "\x80;a;(1;1);();2*;*2;sin();sin(1,2);1e5e5;sin;sin sin(1);1%2;2(3);-(-)");
    failing.insert(
        failing.end(),
        {longest + " ", "(" + repeat("1+", 39), abs + "abs(1" + repeat(")", 14),
         repeat("(", 28) + "1" + repeat(")", 28), repeat("2^", 30) + "1", repeat("(", 100000)});
    for (const std::string& text : failing) {
        const Result r = run(text);
        EXPECT_EQ(r.status, 0) << text;
        EXPECT_EQ(r.value, 0.0) << text;
        EXPECT_EQ(r.text, text) << "a failing text keeps its case";
    }
}

TEST(Arithmetic, NumbersAreExact) {
    std::mt19937_64 random(1);
    for (int i = 0; i < 100000; ++i) {
        std::string text;
        for (auto d = random() % 40 + 1; d > 0; --d) text += static_cast<char>('0' + random() % 10);
        if (random() % 2 != 0) text.insert(random() % (text.size() + 1), ".");
        if (random() % 2 != 0) text += random() % 2 != 0 ? "E-" : "E";
        if (text.find('E') != text.npos) text += std::to_string(random() % 400);
        const double expected = std::strtod(text.c_str(), nullptr);
        ASSERT_EQ(std::bit_cast<mira::u64>(run(text).value), std::bit_cast<mira::u64>(expected))
            << text;
    }
}

}  // namespace
