// Code pages 866 (OEM) and 1251 (ANSI), one byte to one byte, and the upper case of 866.
//
//   OEM          ANSI
//   00 to 7F     the same
//   80 to AF     C0 to EF    Cyrillic letters
//   B0 to DF     80 to AF    exchanged whole, so that both tables are permutations
//   E0 to EF     F0 to FF    Cyrillic letters
//   F0 to FF     B0 to BF    exchanged whole
#include <array>

#include "mira.h"

namespace mira {
namespace {

struct Range {
    std::size_t oem, ansi, count;
};
constexpr Range kRanges[] = {
    {0x00, 0x00, 0x80}, {0x80, 0xC0, 0x30}, {0xB0, 0x80, 0x30},
    {0xE0, 0xF0, 0x10}, {0xF0, 0xB0, 0x10},
};

using CodeTable = std::array<u8, 256>;

constexpr CodeTable buildTable(std::size_t Range::*from, std::size_t Range::*to) {
    CodeTable table{};
    for (const Range& r : kRanges) {
        for (std::size_t i = 0; i < r.count; ++i) {
            table[r.*from + i] = static_cast<u8>(r.*to + i);
        }
    }
    return table;
}

constexpr CodeTable buf_o2a = buildTable(&Range::oem, &Range::ansi);
constexpr CodeTable buf_a2o = buildTable(&Range::ansi, &Range::oem);

void translate(const CodeTable& table, const char* source, char* destination, u32 length) {
    for (u32 i = 0; i < length; ++i) {
        destination[i] = static_cast<char>(table[static_cast<u8>(source[i])]);
    }
}

u8 upperOf(u8 c) {
    if (c >= 'a' && c <= 'z') return static_cast<u8>(c - 0x20);
    if (c >= 0xA0 && c <= 0xAF) return static_cast<u8>(c - 0x20);  // Cyrillic, first half
    if (c >= 0xE0 && c <= 0xEF) return static_cast<u8>(c - 0x50);  // and second
    return c;
}

}  // namespace

void OemToCharBuff(const char* source, char* destination, u32 length) {
    translate(buf_o2a, source, destination, length);
}

void CharToOemBuff(const char* source, char* destination, u32 length) {
    translate(buf_a2o, source, destination, length);
}

void IgnoreCase(DbfBase* h, char* text, int mode) {
    if (h->CaseInsensitive == 0) return;
    if (h->UpperCaseCallback != nullptr) {
        h->UpperCaseCallback(text, h, mode);
    } else {
        UpperCase(reinterpret_cast<unsigned char*>(text));
    }
}

std::size_t UpperCase(unsigned char* text) {
    std::size_t length = 0;
    for (; text[length] != 0; ++length) text[length] = upperOf(text[length]);
    return length;
}

}  // namespace mira
