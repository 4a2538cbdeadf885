// Numbers and texts as bytes, put together and taken apart without the library.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

#include "mira.h"

namespace test {

using namespace mira;
using namespace std::string_literals;

/// A number as count bytes.
inline std::string le(u64 value, unsigned count) {
    std::string bytes;
    for (unsigned i = 0; i < count; ++i) bytes += static_cast<char>(i < 8 ? value >> 8 * i : 0);
    return bytes;
}
inline std::string be(u64 value, unsigned count) {
    const std::string bytes = le(value, count);
    return {bytes.rbegin(), bytes.rend()};
}

/// An unsigned number of count bytes; those that are missing are zero.
inline u64 load(std::string_view from, std::size_t at, unsigned count, bool bigEndian = false) {
    u64 value = 0;
    for (unsigned i = 0; i < count; ++i) {
        const std::size_t place = at + (bigEndian ? i : count - 1 - i);
        value = value << 8 | (place < from.size() ? static_cast<u8>(from[place]) : 0u);
    }
    return value;
}

/// A text cut or filled to a width.
inline std::string padded(std::string_view text, std::size_t width, char fill = ' ') {
    std::string result(text.substr(0, width));
    result.resize(width, fill);
    return result;
}

inline std::string repeat(std::string_view part, int count) {
    std::string out;
    while (count-- > 0) out += part;
    return out;
}

/// What printf writes.
inline std::string printed(const char* format, auto... values) {
    char text[800];
    const int length = std::snprintf(text, sizeof text, format, values...);
    return {text, static_cast<std::size_t>(length)};
}

/// A text up to its first zero byte.
inline std::string cString(std::string_view text) {
    return std::string(text.substr(0, text.find('\0')));
}

}  // namespace test
