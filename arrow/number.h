// Stored digits as numbers that hold them exactly, or not at all.
#pragma once

#include <optional>
#include <string_view>

#include "mira.h"

namespace mira::arrow {

/// A whole number of 128 bits, two's complement.
struct Wide {
    u64 low = 0;
    u64 high = 0;
};
Wide wideOf(i64 value);

constexpr unsigned kWideDigits = 38;  // that a Wide always holds

/// digits * 10^scale, which has to be whole and of at most precision digits. The digits are a
/// number by isNumber.
std::optional<Wide> scaledWhole(std::string_view digits, unsigned scale, unsigned precision);

/// Whether the double nearest to a number holds all its digits: written with as many, it is the
/// number again.
bool holdsDigits(std::string_view digits, double nearest);

}  // namespace mira::arrow
