// Arithmetic expressions: values, failures, limits, and what happens to the text and the flag.
#include <bit>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>

#include "support.h"

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

struct Result {
    double value;
    int status;
    std::string text;
};

Result run(std::string text, int status = 7) {
    const double value = mira::Evaluate(text.data(), &status);
    return {value, status, text.c_str()};
}

std::string repeat(std::string_view part, int count) {
    std::string out;
    for (int i = 0; i < count; ++i) out += part;
    return out;
}

std::string nested(std::string_view opener, int depth, std::string_view inner = "1") {
    return repeat(opener, depth) + std::string(inner) + repeat(")", depth);
}

void expectFailure(const std::string& text) {
    const Result r = run(text);
    EXPECT_EQ(r.status, 0) << text;
    EXPECT_EQ(r.value, 0.0) << text;
    EXPECT_EQ(r.text, text) << "a failing text keeps its case";
}

TEST(Arithmetic, Values) {
    for (const std::string& row : test::split(
             "2+3*4=14;(2+3)*4=20;10/4=2.5;2-3-4=-5;8/4/2=1;2^3^2=512;-2^2=4;2^-1=0.5;"
             "2*-3=-6;2--3=5;-SQR(2)=-4;-(2)=-2;-1E308/1E-10=-inf;1E308*10=inf;sin (0)=0;"
             "LOG10(100)=2;LOG(1)=0;POW10(2)=1024;SQR(3)=9;SQRT(9)=3;ABS(-2.5)=2.5;EXP(0)=1;"
             "TRUNC(-2.7)=-2;ROUND(2.5)=3;ROUND(-2.5)=-2;ROUND(-2.7)=-2;"
             "ROUND(1E10+0.6)=10000000001;ROUND(-3E9-0.7)=-3000000001;TRUNC(-3E9-0.7)=-3e9;"
             "ROUND(2147483647.4)=2147483647;TRUNC(1E300)=1e300;TRUNC(1E308*10)=inf;"
             "ACOS(1)=0;ASIN(0)=0;ATAN(0)=0;COS(0)=1;TAN(0)=0;COSH(0)=1;SINH(0)=0;TANH(0)=0;"
             "1e+2=100;2E=2;2E+=2;2E-=2;5.=5;.5=0.5;  7  =7;1E999=inf;1E-999=0;0E999=0;"
             "0/3=0")) {
        const std::size_t equals = row.find('=');
        const Result r = run(row.substr(0, equals));
        EXPECT_EQ(r.value, std::strtod(row.c_str() + equals + 1, nullptr)) << row;
        EXPECT_EQ(r.status, 7) << row << ": success leaves the flag alone";
    }
    for (const char* nan :
         {"SQRT(-1)", "(-1)^0.5", "ROUND(SQRT(-1))", "TRUNC(SQRT(-1))", "LOG(-1)"}) {
        EXPECT_TRUE(std::isnan(run(nan).value)) << nan;
        EXPECT_EQ(run(nan).status, 7) << nan;
    }
    EXPECT_FALSE(std::signbit(run("TRUNC(-0.5)").value));
    EXPECT_TRUE(std::signbit(run("-0").value));
    EXPECT_EQ(run("sin (0)").text, "SIN (0)");
}

TEST(Arithmetic, Failures) {
    for (const std::string& text :
         test::split(";   ;+2;--2;2 3;3:4;1.2.3;.;.E5;ABS;absx(1);abs 1;1/0;-1/0;0/0;1/(2-2);"
                     "1E308/0.1;1E1234;1\t+2;\x80;a;(1;1);();2*;*2;sin();sin(1,2);1e5e5;sin;"
                     "sin sin(1);1%2;2(3);-(-)")) {
        expectFailure(text);
    }
    expectFailure("(" + repeat("1+", 39));  // exactly 79 characters
    EXPECT_EQ(mira::parse(nullptr, nullptr), 0.0);
}

TEST(Arithmetic, Limits) {
    EXPECT_EQ(run(nested("(", 27)).value, 1);
    expectFailure(nested("(", 28));
    EXPECT_EQ(run(nested("abs(", 13)).value, 1);
    expectFailure(nested("abs(", 14));
    EXPECT_EQ(run(repeat("1+", 39) + "1").value, 40) << "79 characters";
    expectFailure(repeat("1+", 39) + "1 ");
    expectFailure(std::string(100000, '('));
    EXPECT_EQ(run(repeat("2^", 13) + "1").value, kInf);
    expectFailure(repeat("2^", 30) + "1");
}

TEST(Arithmetic, NumbersAreExact) {
    std::mt19937_64 random(1);
    for (int i = 0; i < 100000; ++i) {
        std::string text;
        const auto digits = random() % 40;
        for (std::uint64_t d = 0; d <= digits; ++d) text += static_cast<char>('0' + random() % 10);
        if (random() % 2 != 0) text.insert(random() % (text.size() + 1), ".");
        if (random() % 2 != 0) {
            text +=
                "E" + std::string(random() % 2 != 0 ? "-" : "") + std::to_string(random() % 400);
        }
        const double value = run(text).value;
        EXPECT_EQ(std::bit_cast<std::uint64_t>(value),
                  std::bit_cast<std::uint64_t>(std::strtod(text.c_str(), nullptr)))
            << text;
    }
}

}  // namespace
