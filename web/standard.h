// What the C++ library of older emscriptens lacks of C++20. Included before every file of the
// page's engine, and empty where the library has all of it.
#pragma once

#include <version>

#ifndef __cpp_lib_bit_cast
#include <cstring>
#include <type_traits>
namespace std {
template <class To, class From>
constexpr To bit_cast(const From& from) noexcept {
    static_assert(sizeof(To) == sizeof(From) && is_trivially_copyable_v<From>);
    return __builtin_bit_cast(To, from);
}
}  // namespace std
#endif

#ifndef __cpp_lib_to_chars
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace mira::page {

/// The shortest digits that read back as the value, as printf writes them with an exponent. Any 15
/// digits come back from a double; of more, those beside the rounded ones may be the only short
/// enough ones.
inline std::string shortestDigits(double value) {
    char text[40];
    for (const int precision : {14, 15, 16}) {
        std::snprintf(text, sizeof text, "%.*e", precision, value);
        if (std::strtod(text, nullptr) == value) break;
        if (precision != 15) continue;
        char* const digit = text + (value < 0 ? 1 : 0) + 16;
        const char rounded = *digit;
        bool found = false;
        for (const int step : {1, -1}) {
            *digit = static_cast<char>(rounded + step);
            found = *digit >= '0' && *digit <= '9' && std::strtod(text, nullptr) == value;
            if (found) break;
        }
        if (found) break;
    }
    std::string digits = text;
    const std::size_t exponent = digits.find('e');
    std::size_t end = exponent;
    while (digits[end - 1] == '0') --end;
    if (digits[end - 1] == '.') --end;
    return digits.erase(end, exponent - end);
}

/// The same digits without an exponent.
inline std::string fixedDigits(const std::string& scientific, int exponent) {
    std::string digits, sign;
    for (const char c : scientific.substr(0, scientific.find('e'))) {
        if (c == '-') sign = "-";
        if (c >= '0' && c <= '9') digits += c;
    }
    const int count = static_cast<int>(digits.size());
    if (exponent < 0) {
        return sign + "0." + std::string(static_cast<std::size_t>(-exponent - 1), '0') + digits;
    }
    if (exponent + 1 >= count) {
        return sign + digits.append(static_cast<std::size_t>(exponent + 1 - count), '0');
    }
    return sign + digits.insert(static_cast<std::size_t>(exponent + 1), 1, '.');
}

inline std::to_chars_result putText(char* first, char* last, const std::string& text) {
    if (text.size() > static_cast<std::size_t>(last - first)) {
        return {last, std::errc::value_too_large};
    }
    return {std::copy(text.begin(), text.end(), first), std::errc()};
}

}  // namespace mira::page

namespace std {

inline to_chars_result to_chars(char* first, char* last, double value, chars_format format,
                                int precision) {
    char text[1200];
    snprintf(text, sizeof text, format == chars_format::fixed ? "%.*f" : "%.*e", precision, value);
    return mira::page::putText(first, last, text);
}

inline to_chars_result to_chars(char* first, char* last, double value,
                                chars_format format = chars_format{}) {
    if (!isfinite(value)) {
        return mira::page::putText(first, last, isnan(value) ? "nan" : value < 0 ? "-inf" : "inf");
    }
    const string scientific = mira::page::shortestDigits(value);
    if (format == chars_format::scientific) return mira::page::putText(first, last, scientific);
    const int exponent = atoi(scientific.c_str() + scientific.find('e') + 1);
    const string fixed = mira::page::fixedDigits(scientific, exponent);
    return mira::page::putText(first, last, fixed.size() <= scientific.size() ? fixed : scientific);
}

}  // namespace std
#endif

#if !defined(__cpp_lib_three_way_comparison) || defined(_LIBCPP_VERSION) && _LIBCPP_VERSION < 14000
#include <compare>
#include <string_view>
namespace std {
inline strong_ordering operator<=>(string_view a, string_view b) { return a.compare(b) <=> 0; }
}  // namespace std
#endif
