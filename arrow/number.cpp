#include "arrow/number.h"

#include <algorithm>
#include <charconv>
#include <string>

#include "tables/page/text.h"

namespace mira::arrow {
namespace {

/// Digits and exponent of a number, 0.DIGITS * 10^point, without zeros before and after them.
struct Decimal {
    bool negative = false;
    std::string digits{};
    i64 point = 0;
};

i64 exponentOf(std::string_view text) {
    constexpr i64 kFar = 1000000;  // beyond every field
    tables::takeOneOf(&text, "+");
    i64 exponent = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), exponent);
    const i64 limit = text.starts_with('-') ? -kFar : kFar;
    return result.ec == std::errc() ? std::clamp(exponent, -kFar, kFar) : limit;
}

Decimal decimalOf(std::string_view text) {
    Decimal decimal;
    decimal.negative = text.starts_with('-');
    tables::takeOneOf(&text, "+-");
    const std::size_t exponent = std::min(text.find_first_of("eE"), text.size());
    if (exponent != text.size()) decimal.point = exponentOf(text.substr(exponent + 1));
    bool fraction = false;
    for (const char c : text.substr(0, exponent)) {
        if (c == '.') {
            fraction = true;
        } else if (c == '0' && decimal.digits.empty()) {
            if (fraction) --decimal.point;
        } else {
            decimal.digits += c;
            if (!fraction) ++decimal.point;
        }
    }
    while (decimal.digits.ends_with('0')) decimal.digits.pop_back();
    return decimal;
}

void appendDigit(Wide& wide, unsigned digit) {
    constexpr u64 kHalf = 0xFFFFFFFF;
    const u64 lower = (wide.low & kHalf) * 10 + digit;
    const u64 upper = (wide.low >> 32) * 10 + (lower >> 32);
    wide.low = upper << 32 | (lower & kHalf);
    wide.high = wide.high * 10 + (upper >> 32);
}

Wide negated(Wide wide) {
    wide.low = 0 - wide.low;
    wide.high = ~wide.high + (wide.low == 0 ? 1 : 0);
    return wide;
}

}  // namespace

Wide wideOf(i64 value) { return {static_cast<u64>(value), value < 0 ? ~u64{0} : 0}; }

std::optional<Wide> scaledWhole(std::string_view digits, unsigned scale, unsigned precision) {
    const Decimal decimal = decimalOf(digits);
    if (decimal.digits.empty()) return Wide{};
    const i64 size = decimal.point + scale;
    if (size < static_cast<i64>(decimal.digits.size()) || size > precision) return std::nullopt;
    Wide wide;
    for (std::size_t i = 0; i < static_cast<std::size_t>(size); ++i) {
        const char digit = i < decimal.digits.size() ? decimal.digits[i] : '0';
        appendDigit(wide, static_cast<unsigned>(digit - '0'));
    }
    return decimal.negative ? negated(wide) : wide;
}

bool holdsDigits(std::string_view digits, double nearest) {
    constexpr std::size_t kAlways = 15;
    constexpr std::size_t kNever = 800;  // no double has as many
    constexpr i64 kLeast = -307;         // smaller ones have fewer digits
    const Decimal wanted = decimalOf(digits);
    if (wanted.digits.empty()) return true;
    if (wanted.digits.size() <= kAlways && wanted.point > kLeast) return true;
    if (wanted.digits.size() > kNever) return false;
    char text[kNever + 32];
    const auto end = std::to_chars(text, text + sizeof text, nearest, std::chars_format::scientific,
                                   static_cast<int>(wanted.digits.size() - 1));
    const Decimal held = decimalOf({text, static_cast<std::size_t>(end.ptr - text)});
    return held.digits == wanted.digits && held.point == wanted.point;
}

}  // namespace mira::arrow
