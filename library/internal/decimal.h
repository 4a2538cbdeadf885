// Decimal text to double and back, independent of the locale, exactly as atof and printf do it in
// the "C" locale but without their cost.
#pragma once

#include <cstddef>
#include <string_view>

#include "mira.h"

namespace mira {

/// atof of a text that ends where the view ends.
double readDecimal(std::string_view text);

/// printf("%*.*f", width, decimals, value) into to; returns the length of the text, which ends with
/// a zero byte. to holds kFixedTextSize bytes.
std::size_t printFixed(char* to, double value, unsigned width, unsigned decimals);

/// A decimal of up to this many digits comes back from a double unchanged.
inline constexpr std::size_t kExactDigits = 15;

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
