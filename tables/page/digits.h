// Eight characters looked at as one word whose lowest byte is the first of them.
#pragma once

#include "tables/page/bytes.h"

namespace mira::tables {

constexpr u64 kOnes = 0x0101010101010101;
constexpr u64 kHigh = 0x80 * kOnes;
constexpr u64 kLow = 0x7F * kOnes;
constexpr u64 kZeros = '0' * kOnes;

/// The high bit of every byte of digits without their '0' that is none.
constexpr u64 nonDigits(u64 digits) {
    return (((digits & kLow) + (0x80 - 10) * kOnes) | digits) & kHigh;
}

}  // namespace mira::tables
