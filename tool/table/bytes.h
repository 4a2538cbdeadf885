// Numbers in the bytes of files, whatever the order of the machine.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "mira.h"

namespace mira::tool {

/// The first sizeof(T) bytes at from, little-endian.
template <typename T>
T loadLe(const void* from) {
    std::array<u8, sizeof(T)> bytes;
    std::memcpy(bytes.data(), from, sizeof bytes);
    if constexpr (std::endian::native == std::endian::big) {
        std::reverse(bytes.begin(), bytes.end());
    }
    return std::bit_cast<T>(bytes);
}

inline u32 loadBe32(const u8* from) {
    return u32{from[0]} << 24 | u32{from[1]} << 16 | u32{from[2]} << 8 | from[3];
}

inline double loadBeDouble(const u8* from) {
    return std::bit_cast<double>(u64{loadBe32(from)} << 32 | loadBe32(from + 4));
}

}  // namespace mira::tool
