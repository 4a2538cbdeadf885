// Decimal text to double and back, independent of the locale, exactly as atof and printf do it in
// the "C" locale but without their cost.
#pragma once

#include <cfloat>
#include <cstddef>
#include <string_view>

#include "internal/ascii.h"
#include "mira.h"

namespace mira {

/// A decimal as fields store it: blanks, a minus sign, digits with a point before, among or after
/// them. Anything may be missing.
struct StoredDecimal {
    const char* first;     ///< after blanks and sign
    const char* end;       ///< after the last byte that belongs to the number
    u64 digits;            ///< all of them as one integer; wraps beyond 19
    std::size_t whole;     ///< digits before the point
    std::size_t decimals;  ///< digits after it
    bool negative;
    bool point;
};
inline StoredDecimal scanDecimal(std::string_view text) {
    const char* at = text.data();
    const char* const end = at + text.size();
    while (at != end && *at == ' ') ++at;
    const bool negative = at != end && *at == '-';
    if (negative) ++at;
    const char* const first = at;
    u64 digits = 0;
    for (; at != end && isDigit(*at); ++at) digits = digits * 10 + static_cast<u8>(*at - '0');
    const auto whole = static_cast<std::size_t>(at - first);
    const bool point = at != end && *at == '.';
    if (point) ++at;
    const char* const decimals = at;
    if (point) {
        for (; at != end && isDigit(*at); ++at) digits = digits * 10 + static_cast<u8>(*at - '0');
    }
    return {first, at, digits, whole, static_cast<std::size_t>(at - decimals), negative, point};
}

/// Whether all eight bytes of a word are numbers from 0 to 9.
inline bool areDigits(u64 word) {
    // A byte above 9 reaches the top bit by this sum, if it does not have it already.
    return ((word | (word + 0x7676767676767676)) & 0x8080808080808080) == 0;
}

/// A decimal of up to this many digits comes back from a double unchanged.
inline constexpr std::size_t kExactDigits = 15;

static_assert(FLT_EVAL_METHOD == 0 || FLT_EVAL_METHOD == 1,
              "results in more than double precision would be rounded twice");

/// Whether exactValue can tell the value: digits and power of ten are exact as doubles, so that one
/// division rounds as any correct reader does; or an integer of 64 bits is rounded once.
inline bool isExact(const StoredDecimal& d) {
    return d.whole + d.decimals <= kExactDigits || (d.decimals == 0 && d.whole <= 18);
}
inline double exactValue(const StoredDecimal& d) {
    static constexpr double powersOfTen[kExactDigits + 1] = {
        1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
    double value = static_cast<double>(static_cast<i64>(d.digits));
    if (d.decimals != 0) value /= powersOfTen[d.decimals];
    return d.negative ? -value : value;
}

/// Whether a decimal is all of a text but for blanks after it. (A number with an exponent, say, is
/// not.)
inline bool isWhole(const StoredDecimal& d, std::string_view text) {
    const char* at = d.end;
    const char* const end = text.data() + text.size();
    while (at != end && *at == ' ') ++at;
    return at == end;
}

/// atof of a text that ends where the view ends, if not at a zero byte.
double readDecimal(std::string_view text);

/// atoi, clamped to 32 bits.
i32 readInteger(std::string_view text);

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

/// printFixed of the value of a text, without the way through a double: for one decimal with blanks
/// around it and, with the decimals to print, at most kExactDigits digits. 0 for any other text.
std::size_t printAnew(char* to, std::string_view text, unsigned width, unsigned decimals);

/// printf("%*d", width, value) likewise.
std::size_t printInteger(char* to, i32 value, unsigned width);

}  // namespace mira
