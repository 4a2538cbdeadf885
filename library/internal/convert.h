// Double to integer without undefined behaviour.
#pragma once

#include <cmath>
#include <limits>
#include <optional>

#include "mira.h"

namespace mira {

/// Truncated toward zero; values beyond 32 bits become the nearest limit, NaN 0.
inline i32 clampToI32(double value) {
    if (std::isnan(value)) return 0;
    if (value >= 2147483647.0) return std::numeric_limits<i32>::max();
    if (value <= -2147483648.0) return std::numeric_limits<i32>::min();
    return static_cast<i32>(value);
}

/// Truncated toward zero; none for NaN and for values that do not fit.
inline std::optional<i64> toI64(double value) {
    constexpr double limit = 9223372036854775808.0;  // 2^63
    if (!(value >= -limit && value < limit)) return std::nullopt;
    return static_cast<i64>(value);
}

}  // namespace mira
