// Decimal text to double and back, independent of the locale, exactly as atof and printf do it in
// the "C" locale but without their cost.
#pragma once

#include <cstddef>
#include <string_view>

#include "internal/ascii.h"
#include "mira.h"

namespace mira {

/// A decimal as fields store it: blanks, a minus sign, digits with a point before, among or after
/// them. Anything may be missing.
struct StoredDecimal {
    const char* first;         ///< after blanks and sign
    const char* end;           ///< after the last byte that belongs to the number
    u64 digits = 0;            ///< all of them as one integer; wraps beyond 19
    std::size_t whole = 0;     ///< digits before the point
    std::size_t decimals = 0;  ///< digits after it
    bool negative = false;
    bool point = false;
};
inline StoredDecimal scanDecimal(std::string_view text) {
    const char* at = text.data();
    const char* const end = at + text.size();
    while (at != end && *at == ' ') ++at;
    const bool negative = at != end && *at == '-';
    if (negative) ++at;
    StoredDecimal d{.first = at, .end = at, .negative = negative};
    for (; at != end && isDigit(*at); ++at) d.digits = d.digits * 10 + static_cast<u64>(*at - '0');
    d.whole = static_cast<std::size_t>(at - d.first);
    if (at != end && *at == '.') {
        d.point = true;
        const char* const decimals = ++at;
        for (; at != end && isDigit(*at); ++at) {
            d.digits = d.digits * 10 + static_cast<u64>(*at - '0');
        }
        d.decimals = static_cast<std::size_t>(at - decimals);
    }
    d.end = at;
    return d;
}

/// A decimal of up to this many digits comes back from a double unchanged.
inline constexpr std::size_t kExactDigits = 15;

/// Whether exactValue can tell the value: digits and power of ten are exact as doubles, so that one
/// division rounds as any correct reader does; or an integer of 64 bits is rounded once.
inline bool isExact(const StoredDecimal& d) {
    return d.whole + d.decimals <= kExactDigits || (d.decimals == 0 && d.whole <= 18);
}
inline double exactValue(const StoredDecimal& d) {
    constexpr double powersOfTen[kExactDigits + 1] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                                      1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
    const double value = static_cast<double>(static_cast<i64>(d.digits)) / powersOfTen[d.decimals];
    return d.negative ? -value : value;
}

/// atof of a text that ends where the view ends.
double readDecimal(std::string_view text);

/// printf("%*.*f", width, decimals, value) into to; returns the length of the text, which ends with
/// a zero byte. to holds kFixedTextSize bytes.
std::size_t printFixed(char* to, double value, unsigned width, unsigned decimals);

/// The value that reading the text of printFixed gives. False where only reading can tell.
bool printedValue(double value, unsigned decimals, double* printed);

/// Below this magnitude a double keeps all four decimals of a currency in ten-thousandths.
inline constexpr i64 kExactCurrency = i64{1} << 52;

/// Widths and decimal counts are bytes (0 to 255), and a double has up to 309 digits and a sign
/// before its point.
inline constexpr std::size_t kFixedTextSize = 640;

/// magnitude / 10^decimals, exactly, as printFixed would print it; decimals up to 19.
std::size_t printScaled(char* to, bool negative, u64 magnitude, unsigned width, unsigned decimals);

/// printf("%*d", width, value) likewise.
std::size_t printInteger(char* to, i32 value, unsigned width);

}  // namespace mira
