// Endian load and store: the one way numbers enter and leave byte buffers.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstring>

#include "mira.h"

namespace mira {

/// The bytes of value in reverse order. (A loop of shifts is not taken for one instruction.)
template <std::unsigned_integral T>
T swapBytes(T value) {
    if constexpr (sizeof(T) == 2) return __builtin_bswap16(value);
    if constexpr (sizeof(T) == 4) return __builtin_bswap32(value);
    if constexpr (sizeof(T) == 8) return __builtin_bswap64(value);
}

template <std::unsigned_integral T, std::endian Order>
T load(const u8* from) {
    T value;
    std::memcpy(&value, from, sizeof value);
    return Order == std::endian::native ? value : swapBytes(value);
}

template <std::unsigned_integral T, std::endian Order>
void store(u8* to, T value) {
    if (Order != std::endian::native) value = swapBytes(value);
    std::memcpy(to, &value, sizeof value);
}

inline u16 loadLe16(const u8* from) { return load<u16, std::endian::little>(from); }
inline u32 loadLe32(const u8* from) { return load<u32, std::endian::little>(from); }
inline u64 loadLe64(const u8* from) { return load<u64, std::endian::little>(from); }
inline u16 loadBe16(const u8* from) { return load<u16, std::endian::big>(from); }
inline u32 loadBe32(const u8* from) { return load<u32, std::endian::big>(from); }
inline u64 loadBe64(const u8* from) { return load<u64, std::endian::big>(from); }
inline void storeLe16(u8* to, u16 value) { store<u16, std::endian::little>(to, value); }
inline void storeLe32(u8* to, u32 value) { store<u32, std::endian::little>(to, value); }
inline void storeLe64(u8* to, u64 value) { store<u64, std::endian::little>(to, value); }
inline void storeBe16(u8* to, u16 value) { store<u16, std::endian::big>(to, value); }
inline void storeBe32(u8* to, u32 value) { store<u32, std::endian::big>(to, value); }
inline void storeBe64(u8* to, u64 value) { store<u64, std::endian::big>(to, value); }

inline double loadLeDouble(const u8* from) { return std::bit_cast<double>(loadLe64(from)); }
inline double loadBeDouble(const u8* from) { return std::bit_cast<double>(loadBe64(from)); }
inline void storeLeDouble(u8* to, double value) { storeLe64(to, std::bit_cast<u64>(value)); }
inline void storeBeDouble(u8* to, double value) { storeBe64(to, std::bit_cast<u64>(value)); }

}  // namespace mira
