// Decimal numbers as digits: nothing is rounded that was not asked to be.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "mira.h"

namespace mira::tables {

/// digits times 10 to the minus scale. digits has no leading zeros, and is "0" for zero, which is
/// never negative.
struct Decimal {
    bool negative = false;
    std::string digits = "0";
    int scale = 0;
};

/// Sign, digits with at most one point, exponent; nothing for other texts, or beyond what any
/// double holds.
std::optional<Decimal> readDecimal(std::string_view text);
/// The shortest digits that read back as the same double, which is finite.
Decimal decimalOf(double value);
/// Changes the scale. Digits that would be lost are rounded off, half away from zero, or, when
/// rounding is not allowed, make it fail.
bool rescale(Decimal& number, int scale, bool mayRound);
/// With all digits after the point that the scale says.
std::string printDecimal(const Decimal& number);
/// As a whole number in units of the last digit; nothing beyond 64 bits.
std::optional<i64> unitsOf(const Decimal& number);

}  // namespace mira::tables
