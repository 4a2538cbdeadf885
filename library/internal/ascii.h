// Classes and cases of characters and comparing texts without regard to case: those of the "C"
// locale, whatever the locale is.
#pragma once

#include <cstddef>

#include "mira.h"

namespace mira {

inline bool isDigit(char c) { return c >= '0' && c <= '9'; }
inline bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

inline u8 lowerAscii(char c) { return static_cast<u8>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); }
inline char upperAscii(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

/// strncasecmp.
inline int compareIgnoringCase(const char* a, const char* b, std::size_t count) {
    for (; count != 0; ++a, ++b, --count) {
        const int difference = lowerAscii(*a) - lowerAscii(*b);
        if (difference != 0 || *a == 0) return difference;
    }
    return 0;
}

/// True when strcasecmp is 0.
inline bool sameIgnoringCase(const char* a, const char* b) {
    return compareIgnoringCase(a, b, static_cast<std::size_t>(-1)) == 0;
}

}  // namespace mira
