// Endian load and store: the one way numbers enter and leave byte buffers.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>

#include "mira.h"

namespace mira {

template <std::unsigned_integral T>
inline T loadLe(const u8* from) {
    T value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        value = static_cast<T>(value | static_cast<T>(static_cast<T>(from[i]) << (8 * i)));
    }
    return value;
}

template <std::unsigned_integral T>
inline T loadBe(const u8* from) {
    T value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        value = static_cast<T>(
            value | static_cast<T>(static_cast<T>(from[i]) << (8 * (sizeof(T) - 1 - i))));
    }
    return value;
}

template <std::unsigned_integral T>
inline void storeLe(u8* to, T value) {
    for (std::size_t i = 0; i < sizeof(T); ++i) to[i] = static_cast<u8>(value >> (8 * i));
}

template <std::unsigned_integral T>
inline void storeBe(u8* to, T value) {
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        to[i] = static_cast<u8>(value >> (8 * (sizeof(T) - 1 - i)));
    }
}

inline u16 loadLe16(const u8* from) { return loadLe<u16>(from); }
inline u32 loadLe32(const u8* from) { return loadLe<u32>(from); }
inline u64 loadLe64(const u8* from) { return loadLe<u64>(from); }
inline u16 loadBe16(const u8* from) { return loadBe<u16>(from); }
inline u32 loadBe32(const u8* from) { return loadBe<u32>(from); }
inline u64 loadBe64(const u8* from) { return loadBe<u64>(from); }
inline void storeLe16(u8* to, u16 value) { storeLe(to, value); }
inline void storeLe32(u8* to, u32 value) { storeLe(to, value); }
inline void storeLe64(u8* to, u64 value) { storeLe(to, value); }
inline void storeBe16(u8* to, u16 value) { storeBe(to, value); }
inline void storeBe32(u8* to, u32 value) { storeBe(to, value); }
inline void storeBe64(u8* to, u64 value) { storeBe(to, value); }

inline double loadLeDouble(const u8* from) { return std::bit_cast<double>(loadLe64(from)); }
inline double loadBeDouble(const u8* from) { return std::bit_cast<double>(loadBe64(from)); }
inline void storeLeDouble(u8* to, double value) { storeLe64(to, std::bit_cast<u64>(value)); }
inline void storeBeDouble(u8* to, double value) { storeBe64(to, std::bit_cast<u64>(value)); }

}  // namespace mira
