// Digits, and comparing texts without regard to the case of A to Z, whatever the locale.
#pragma once

#include <cstddef>

#include "mira.h"

namespace mira {

inline bool isDigit(char c) { return c >= '0' && c <= '9'; }

inline u8 lowerAscii(char c) { return static_cast<u8>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); }

/// strncasecmp of the "C" locale.
inline int compareIgnoringCase(const char* a, const char* b, std::size_t count) {
    for (; count != 0; ++a, ++b, --count) {
        const int difference = lowerAscii(*a) - lowerAscii(*b);
        if (difference != 0 || *a == 0) return difference;
    }
    return 0;
}

/// True when strcasecmp of the "C" locale is 0.
inline bool sameIgnoringCase(const char* a, const char* b) {
    return compareIgnoringCase(a, b, static_cast<std::size_t>(-1)) == 0;
}

}  // namespace mira
