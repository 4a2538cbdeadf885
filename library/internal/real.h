// std::from_chars for doubles, also where the standard library has it for integers only.
#pragma once

#include <locale.h>
#if __has_include(<xlocale.h>)
#include <xlocale.h>
#endif

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string>
#include <string_view>
#include <system_error>

#include "internal/decimal.h"

namespace mira {

/// What stands behind a decimal if it is an exponent, else nothing: "e5", "E-12".
inline const char* skipExponent(const char* at, const char* last) {
    const char* const none = at;
    if (at == last || (*at != 'e' && *at != 'E')) return none;
    ++at;
    if (at != last && (*at == '+' || *at == '-')) ++at;
    if (at == last || !isDigit(*at)) return none;
    while (at != last && isDigit(*at)) ++at;
    return at;
}

/// strtod of a text that ends at last, in the "C" locale whichever is set.
inline double strtodPlainly(const char* first, const char* last) {
    static const locale_t plain = newlocale(LC_ALL_MASK, "C", nullptr);
    constexpr std::size_t kUsual = 320;  // fields and expressions of the library are shorter
    char usual[kUsual];
    std::string large;
    const auto length = static_cast<std::size_t>(last - first);
    const char* text = usual;
    if (length < kUsual) {
        usual[std::string_view(first, length).copy(usual, length)] = 0;
    } else {
        text = large.assign(first, length).c_str();
    }
    return plain != nullptr ? strtod_l(text, nullptr, plain) : std::strtod(text, nullptr);
}

/// from_chars of digits; "inf", "nan" and hexadecimal digits are not read.
inline std::from_chars_result readRealPlainly(const char* first, const char* last, double& value,
                                              std::chars_format format) {
    const auto length = static_cast<std::size_t>(last - first);
    const StoredDecimal decimal = scanDecimal({first, length});
    if (decimal.whole + decimal.decimals == 0 || *first == ' ') {
        return {first, std::errc::invalid_argument};
    }
    const bool mayHaveExponent = format != std::chars_format::fixed;
    const char* const end = mayHaveExponent ? skipExponent(decimal.end, last) : decimal.end;
    if (end == decimal.end && isExact(decimal)) {
        value = exactValue(decimal);
        return {end, std::errc()};
    }
    const double read = strtodPlainly(first, end);
    const std::string_view digits(first, static_cast<std::size_t>(decimal.end - first));
    const bool lost = read == 0 && digits.find_first_of("123456789") != std::string_view::npos;
    if (lost || std::isinf(read)) return {end, std::errc::result_out_of_range};
    value = read;
    return {end, std::errc()};
}

template <typename Real>
concept ReadByStandardLibrary = requires(const char* text, Real& value) {
    std::from_chars(text, text, value);
};

/// from_chars of a text that is no "inf", no "nan".
template <typename Real>
std::from_chars_result readReal(const char* first, const char* last, Real& value,
                                std::chars_format format = std::chars_format::general) {
    if constexpr (ReadByStandardLibrary<Real>) {
        return std::from_chars(first, last, value, format);
    } else {
        return readRealPlainly(first, last, value, format);
    }
}

}  // namespace mira
