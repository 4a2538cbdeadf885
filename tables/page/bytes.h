// Numbers in the bytes of files, whatever the order of the machine.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <string>

#include "mira.h"

namespace mira::tables {

/// From the order of the machine to little-endian, or back.
template <std::size_t N>
std::array<u8, N> turned(std::array<u8, N> bytes) {
    if (std::endian::native == std::endian::big) std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

/// The first sizeof(T) bytes at from, little-endian.
template <typename T>
T loadLe(const void* from) {
    std::array<u8, sizeof(T)> bytes;
    std::memcpy(bytes.data(), from, sizeof bytes);
    return std::bit_cast<T>(turned(bytes));
}

template <typename T>
std::array<u8, sizeof(T)> bytesLe(T value) {
    return turned(std::bit_cast<std::array<u8, sizeof(T)>>(value));
}

inline u32 loadBe32(const u8* from) {
    return u32{from[0]} << 24 | u32{from[1]} << 16 | u32{from[2]} << 8 | from[3];
}

inline double loadBeDouble(const u8* from) {
    return std::bit_cast<double>(u64{loadBe32(from)} << 32 | loadBe32(from + 4));
}

/// "0x1A"
inline std::string hexByte(u8 byte) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    return {'0', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
}

}  // namespace mira::tables
