// Arithmetic texts against an evaluator of this file, which descends the grammar and counts the
// entries that the parser's stack of 30 would hold.
#include <bit>
#include <cmath>
#include <limits>

#include "support.h"

using namespace fuzz;

namespace {

constexpr std::size_t kLargest = 100;
constexpr int kStackSize = 30;
constexpr double kInfinity = std::numeric_limits<double>::infinity();

struct Function {
    const char* name;
    double (*apply)(double);
};

double whole(double x) { return std::fabs(x) < 4e9 ? static_cast<double>(static_cast<i64>(x)) : x; }

/// Longer names before the ones they begin with.
constexpr Function kFunctions[] = {
    {"ABS", std::fabs},
    {"ACOS", std::acos},
    {"ASIN", std::asin},
    {"ATAN", std::atan},
    {"COSH", std::cosh},
    {"COS", std::cos},
    {"EXP", std::exp},
    {"LOG10", std::log10},
    {"LOG", std::log},
    {"SINH", std::sinh},
    {"SIN", std::sin},
    {"SQRT", std::sqrt},
    {"TANH", std::tanh},
    {"TAN", std::tan},
    {"POW10", [](double x) { return std::pow(x, 10.0); }},
    {"SQR", [](double x) { return x * x; }},
    {"TRUNC", [](double x) { return std::fabs(x) < 4e9 ? whole(x) : std::trunc(x); }},
    {"ROUND", [](double x) {
         const double up = x + 0.5;
         const bool fits = up > -2147483649.0 && up < 2147483648.0;
         return fits ? whole(up) : std::round(x);
     }}};

class Evaluator {
public:
    explicit Evaluator(const std::string& text) : at_(text.c_str()) {}

    /// False for a text that fails.
    bool run(double* value) {
        *value = expression();
        return good_ && next() == 0;
    }

private:
    char next() {
        while (*at_ == ' ') ++at_;
        return *at_;
    }
    bool take(char c) {
        if (!good_ || next() != c) return false;
        ++at_;
        push();
        return true;
    }
    void push() { good_ = good_ && ++entries_ <= kStackSize; }
    double fail() {
        good_ = false;
        return 0;
    }

    double expression() {
        double value = term();
        for (;;) {
            const double left = value;
            if (take('+')) {
                value = left + term();
            } else if (take('-')) {
                value = left - term();
            } else {
                return value;
            }
            entries_ -= 2;
        }
    }
    double term() {
        double value = power();
        for (;;) {
            const double left = value;
            if (take('*')) {
                value = left * power();
            } else if (take('/')) {
                const double right = power();
                value = right == 0 ? kInfinity : left / right;
                if (value == kInfinity) return fail();
            } else {
                return value;
            }
            entries_ -= 2;
        }
    }
    double power() {
        const double base = signedOperand();
        if (!take('^')) return base;
        const double exponent = power();
        entries_ -= 2;
        return std::pow(base, exponent);
    }
    double signedOperand() {
        if (!take('-')) return operand();
        const double value = operand();
        --entries_;
        return -value;
    }
    double operand() {
        if (take('(')) return inParentheses(0);
        const char c = next();
        if (!good_) return 0;
        if ((c >= '0' && c <= '9') || c == '.') return number();
        for (const Function& f : kFunctions) {
            if (std::strncmp(at_, f.name, std::strlen(f.name)) != 0) continue;
            at_ += std::strlen(f.name);
            push();
            return take('(') ? f.apply(inParentheses(1)) : fail();
        }
        return fail();
    }
    /// Behind "(": below it stand as many entries of a function.
    double inParentheses(int below) {
        const double value = expression();
        if (!take(')')) return fail();
        entries_ -= 2 + below;
        return value;
    }
    double number() {
        std::string text;
        const auto digits = [&](int most) {
            for (; most > 0 && *at_ >= '0' && *at_ <= '9'; --most) text += *at_++;
        };
        digits(100);
        if (*at_ == '.') {
            text += *at_++;
            digits(100);
        }
        if (text == ".") return fail();
        if (*at_ == 'E') {
            text += *at_++;
            if (*at_ == '+' || *at_ == '-') text += *at_++;
            digits(3);
        }
        push();
        return std::strtod(text.c_str(), nullptr);
    }

    const char* at_;
    int entries_ = 1;
    bool good_ = true;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > kLargest) return 0;
    const std::string input = std::string(reinterpret_cast<const char*>(data), size).c_str();
    std::string upper = input;
    for (char& c : upper) c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 0x20) : c;
    double expected = 0;
    const bool good = input.size() < 80 && Evaluator(upper).run(&expected);
    if (!good) expected = 0;

    // A block of exactly the size, so that a sanitizer sees one byte too many.
    const std::unique_ptr<char[]> text(new char[input.size() + 1]);
    std::memcpy(text.get(), input.c_str(), input.size() + 1);
    int status = 5;
    const double value = Evaluate(text.get(), &status);
    FUZZ_CHECK(status == (good ? 5 : 0));
    FUZZ_CHECK(text.get() == (good ? upper : input));
    if (std::isnan(expected)) {
        FUZZ_CHECK(std::isnan(value));
    } else {
        FUZZ_CHECK(std::bit_cast<u64>(value) == std::bit_cast<u64>(expected));
    }
    return 0;
}
