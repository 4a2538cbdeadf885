#include "tables/store/decimal.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdlib>

#include "tables/page/text.h"

namespace mira::tables {
namespace {

constexpr int kMostDigits = 400;  // a double has no more in front of the point

std::string_view takeDigits(std::string_view* text) {
    const auto end = std::find_if_not(text->begin(), text->end(), isDigit);
    const std::string_view digits = text->substr(0, static_cast<std::size_t>(end - text->begin()));
    text->remove_prefix(digits.size());
    return digits;
}

/// ["e" [sign] digits]; nothing when something else stands there.
std::optional<int> takeExponent(std::string_view* text) {
    if (text->empty()) return 0;
    if (!takeOneOf(text, "eE")) return std::nullopt;
    const bool negative = takeOneOf(text, "-");
    if (!negative) takeOneOf(text, "+");
    const std::string_view digits = takeDigits(text);
    int exponent = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), exponent);
    if (error != std::errc{} || !text->empty() || exponent > kMostDigits) return std::nullopt;
    return negative ? -exponent : exponent;
}

void dropLeadingZeros(Decimal* number) {
    number->digits.erase(
        0, std::min(number->digits.find_first_not_of('0'), number->digits.size() - 1));
    if (number->digits == "0") number->negative = false;
}

void addOne(std::string* digits) {
    auto at = digits->rbegin();
    while (at != digits->rend() && *at == '9') *at++ = '0';
    if (at != digits->rend()) {
        ++*at;
    } else {
        digits->insert(digits->begin(), '1');
    }
}

}  // namespace

std::optional<Decimal> readDecimal(std::string_view text) {
    Decimal number;
    number.negative = takeOneOf(&text, "-");
    if (!number.negative) takeOneOf(&text, "+");
    number.digits = takeDigits(&text);
    const bool point = takeOneOf(&text, ".");
    const std::string_view fraction = point ? takeDigits(&text) : std::string_view();
    number.digits += fraction;
    const std::optional<int> exponent = takeExponent(&text);
    if (number.digits.empty() || !exponent) return std::nullopt;
    number.scale = static_cast<int>(fraction.size()) - *exponent;
    dropLeadingZeros(&number);
    if (number.scale < 0 && !rescale(number, 0, false)) return std::nullopt;
    return number;
}

Decimal decimalOf(double value) {
    char text[64];
    const auto end = std::to_chars(text, text + sizeof text, value, std::chars_format::scientific);
    return readDecimal({text, static_cast<std::size_t>(end.ptr - text)}).value_or(Decimal{});
}

bool rescale(Decimal& number, int scale, bool mayRound) {
    if (scale >= number.scale) {
        number.digits.append(static_cast<std::size_t>(scale - number.scale), '0');
    } else {
        const auto lost = static_cast<std::size_t>(number.scale - scale);
        if (number.digits.size() <= lost) {
            number.digits.insert(0, lost - number.digits.size() + 1, '0');
        }
        const std::size_t kept = number.digits.size() - lost;
        if (!mayRound && number.digits.find_first_not_of('0', kept) != std::string::npos) {
            return false;
        }
        const bool up = number.digits[kept] >= '5';
        number.digits.erase(kept);
        if (up) addOne(&number.digits);
    }
    number.scale = scale;
    dropLeadingZeros(&number);
    return true;
}

std::string printDecimal(const Decimal& number) {
    std::string text = number.digits;
    const auto scale = static_cast<std::size_t>(number.scale);
    if (text.size() <= scale) text.insert(0, scale - text.size() + 1, '0');
    if (scale != 0) text.insert(text.size() - scale, 1, '.');
    return number.negative ? "-" + text : text;
}

std::optional<i64> unitsOf(const Decimal& number) {
    const std::string text = (number.negative ? "-" : "") + number.digits;
    i64 units = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), units);
    if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return units;
}

}  // namespace mira::tables
