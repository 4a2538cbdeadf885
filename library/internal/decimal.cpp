// Decimal text to double and back.
#include "internal/decimal.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>

#include "internal/real.h"

namespace mira {
namespace {

constexpr unsigned kMantissaBits = 52;
constexpr unsigned kExponentBias = 1075;  // of the mantissa taken as an integer
constexpr unsigned kExactDecimals = 19;   // 10^19 is the largest power of ten in 64 bits

constexpr std::array<u64, kExactDecimals + 1> kPowersOfTen = [] {
    std::array<u64, kExactDecimals + 1> powers{1};
    for (std::size_t i = 1; i < powers.size(); ++i) powers[i] = powers[i - 1] * 10;
    return powers;
}();

/// Right-aligns body after blanks.
std::size_t alignRight(char* to, std::string_view body, unsigned width) {
    const std::size_t pad = body.size() < width ? width - body.size() : 0;
    std::memset(to, ' ', pad);
    std::memcpy(to + pad, body.data(), body.size());
    to[pad + body.size()] = 0;
    return pad + body.size();
}

#ifdef __SIZEOF_INT128__
__extension__ using Wide = unsigned __int128;

/// |value| * 10^decimals rounded to an integer, half to even, from the exact binary value. None
/// when that does not fit 64 bits.
std::optional<u64> scaleExactly(double value, unsigned decimals) {
    const u64 bits = std::bit_cast<u64>(value);
    const auto exponent = static_cast<unsigned>(bits >> kMantissaBits & 0x7FF);
    const u64 fraction = bits & ((u64{1} << kMantissaBits) - 1);
    if (exponent == 0x7FF || decimals > kExactDecimals) return std::nullopt;
    // |value| = mantissa * 2^(exponent - kExponentBias); the product has at most 53 + 64 bits.
    const u64 mantissa = exponent == 0 ? fraction : fraction | u64{1} << kMantissaBits;
    const Wide product = Wide{mantissa} * kPowersOfTen[decimals];
    if (exponent >= kExponentBias) {
        const unsigned shift = exponent - kExponentBias;
        if (shift > 10 || (product << shift) > std::numeric_limits<u64>::max()) return std::nullopt;
        return static_cast<u64>(product << shift);
    }
    const unsigned shift = kExponentBias - std::max(exponent, 1u);
    if (shift >= 128) return 0;
    const Wide quotient = product >> shift;
    if (quotient >= std::numeric_limits<u64>::max()) return std::nullopt;
    const Wide rest = product & ((Wide{1} << shift) - 1);
    const Wide half = Wide{1} << (shift - 1);
    const bool up = rest > half || (rest == half && (quotient & 1) != 0);
    return static_cast<u64>(quotient) + (up ? 1 : 0);
}
#else
/// Left to the standard library.
std::optional<u64> scaleExactly(double /*value*/, unsigned /*decimals*/) { return std::nullopt; }
#endif

std::size_t printSpecial(char* to, double value, unsigned width) {
    const bool negative = std::signbit(value);
    if (std::isnan(value)) return alignRight(to, negative ? "-nan" : "nan", width);
    return alignRight(to, negative ? "-inf" : "inf", width);
}

constexpr char kPairs[] =
    "0001020304050607080910111213141516171819202122232425262728293031323334353637383940414243444546"
    "4748495051525354555657585960616263646566676869707172737475767778798081828384858687888990919293"
    "949596979899";

/// Digits of a number, 1 for 0.
unsigned countDigits(u64 value) {
    value |= 1;
    const unsigned atMost = static_cast<unsigned>(std::bit_width(value)) * 1233 >> 12;  // log10(2)
    return atMost + (value >= kPowersOfTen[atMost] ? 1 : 0);
}

/// Prints the last count digits before end; returns the number they leave.
u64 putDigits(char* end, u64 value, unsigned count) {
    for (; count >= 4; count -= 4, value /= 10000) {
        const u32 four = static_cast<u32>(value % 10000);
        end -= 4;
        std::memcpy(end, kPairs + std::size_t{2} * (four / 100), 2);
        std::memcpy(end + 2, kPairs + std::size_t{2} * (four % 100), 2);
    }
    for (; count >= 2; count -= 2, value /= 100) {
        end -= 2;
        std::memcpy(end, kPairs + 2 * (value % 100), 2);
    }
    if (count == 0) return value;
    *--end = static_cast<char>('0' + value % 10);
    return value / 10;
}

}  // namespace

double readDecimal(std::string_view text) {
    const char* const end = text.data() + text.size();
    const char* at = text.data();
    while (at != end && isSpace(*at)) ++at;
    const char* start = at;
    const bool negative = at != end && *at == '-';
    if (at != end && (*at == '-' || *at == '+')) ++at;
    const bool hex = end - at > 1 && *at == '0' && (at[1] == 'x' || at[1] == 'X');
    if (at != end && (isDigit(*at) || *at == '.') && !hex) {
        double value = 0.0;
        const std::from_chars_result result = readReal(at, end, value);
        if (result.ec == std::errc()) return negative ? -value : value;
        if (result.ec == std::errc::invalid_argument) return 0.0;
    }
    // Hexadecimal, "inf", "nan" and what is too large or too small for a double. Fields are at most
    // 255 bytes long; what strtod reads past that is of no weight.
    char copy[300];
    const std::size_t length = std::min<std::size_t>(static_cast<std::size_t>(end - start), 299);
    std::memcpy(copy, start, length);
    copy[length] = 0;
    return std::strtod(copy, nullptr);
}

i32 readInteger(std::string_view text) {
    constexpr i64 limit = 0x80000000;
    const char* at = std::find_if_not(text.begin(), text.end(), isSpace);
    const bool negative = at != text.end() && *at == '-';
    if (at != text.end() && (*at == '-' || *at == '+')) ++at;
    i64 value = 0;
    for (; at != text.end() && isDigit(*at) && value < limit; ++at)
        value = value * 10 + (*at - '0');
    return static_cast<i32>(negative ? -std::min(value, limit) : std::min(value, limit - 1));
}

std::size_t printScaled(char* to, bool negative, u64 magnitude, unsigned width, unsigned decimals) {
    const unsigned digits = std::max(countDigits(magnitude), decimals + 1);
    const unsigned length = (negative ? 1 : 0) + digits + (decimals != 0 ? 1 : 0);
    const unsigned pad = width > length ? width - length : 0;
    constexpr unsigned usual = 24;  // a fixed size takes no call; what is too much is overwritten
    std::memset(to, ' ', pad <= usual ? usual : pad);
    char* const end = to + pad + length;
    *end = 0;
    if (negative) to[pad] = '-';
    if (decimals != 0) {
        magnitude = putDigits(end, magnitude, decimals);
        end[-static_cast<int>(decimals) - 1] = '.';
        putDigits(end - decimals - 1, magnitude, digits - decimals);
    } else {
        putDigits(end, magnitude, digits);
    }
    return pad + length;
}

std::size_t printAnew(char* to, std::string_view text, unsigned width, unsigned decimals) {
    const StoredDecimal d = scanDecimal(text);
    if (!isWhole(d, text) || d.decimals > decimals || d.whole + decimals > kExactDigits) return 0;
    const bool negative = d.negative && d.whole + d.decimals != 0;
    return printScaled(to, negative, d.digits * kPowersOfTen[decimals - d.decimals], width,
                       decimals);
}

std::size_t printInteger(char* to, i32 value, unsigned width) {
    const i64 wide = value;
    return printScaled(to, wide < 0, static_cast<u64>(wide < 0 ? -wide : wide), width, 0);
}

bool printedValue(double value, unsigned decimals, double* printed) {
    constexpr u64 exactIntegers = u64{1} << (kMantissaBits + 1);
    const std::optional<u64> scaled = scaleExactly(value, decimals);
    if (!scaled || *scaled > exactIntegers) return false;
    // Both are exact, so the quotient is rounded once, as a reader rounds.
    const double magnitude =
        static_cast<double>(*scaled) / static_cast<double>(kPowersOfTen[decimals]);
    *printed = std::copysign(magnitude, value);
    return true;
}

std::size_t printFixed(char* to, double value, unsigned width, unsigned decimals) {
    if (!std::isfinite(value)) return printSpecial(to, value, width);
    if (const std::optional<u64> scaled = scaleExactly(value, decimals)) {
        return printScaled(to, std::signbit(value), *scaled, width, decimals);
    }
    char body[kFixedTextSize];
    const std::to_chars_result result = std::to_chars(
        body, body + sizeof body, value, std::chars_format::fixed, static_cast<int>(decimals));
    return alignRight(to, {body, static_cast<std::size_t>(result.ptr - body)}, width);
}

}  // namespace mira
