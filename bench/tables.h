// Tables for measuring, written byte by byte: the same bytes for the same arguments.
#pragma once

#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/tables.h"

namespace bench {

using test::Column;

/// Repeatable pseudo-random numbers (xorshift).
class Random {
public:
    std::uint64_t next() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return state_;
    }
    std::uint64_t below(std::uint64_t limit) { return next() % limit; }

private:
    std::uint64_t state_ = 88172645463325252ULL;
};

inline void putLe(char* to, std::uint64_t value, int count) {
    for (int i = 0; i < count; ++i) to[i] = static_cast<char>(value >> (8 * i));
}

/// A value of the column's type, as programs store it; one number in sixteen is blank.
inline void putValue(char* to, const Column& c, Random& random) {
    char text[64];
    const int width = static_cast<int>(c.length);
    switch (c.type) {
        case 'N':
        case 'F': {
            if (random.below(16) == 0) {
                std::memset(to, ' ', c.length);
                return;
            }
            std::uint64_t limit = 1;
            for (unsigned i = c.decimals == 0 ? 1 : c.decimals + 2; i < c.length && i < 15; ++i) {
                limit *= 10;
            }
            double value = static_cast<double>(random.below(limit));
            for (unsigned i = 0; i < c.decimals; ++i) limit /= 10;
            for (unsigned i = 0; i < c.decimals; ++i) value /= 10;
            if (random.below(8) == 0) value = -value / 10;
            std::snprintf(text, sizeof text, "%*.*f", width, static_cast<int>(c.decimals), value);
            std::memcpy(to, text, c.length);
            return;
        }
        case 'D':
            std::snprintf(
                text, sizeof text, "%04d%02d%02d", 1980 + static_cast<int>(random.below(45)),
                1 + static_cast<int>(random.below(12)), 1 + static_cast<int>(random.below(28)));
            std::memcpy(to, text, 8);
            return;
        case 'L':
            *to = random.below(2) != 0 ? 'T' : 'F';
            return;
        case 'I':
            putLe(to, random.next(), 4);
            return;
        case 'B':
            putLe(to,
                  std::bit_cast<std::uint64_t>(static_cast<double>(random.below(100000000)) / 1000),
                  8);
            return;
        case 'Y':
            putLe(to, random.below(1000000000), 8);
            return;
        case 'T':
            putLe(to, 2444240 + random.below(16000), 4);
            putLe(to + 4, random.below(86400) * 1000, 4);
            return;
        default: {
            std::memset(to, ' ', c.length);
            const std::uint64_t used = 1 + random.below(c.length);
            for (std::uint64_t i = 0; i < used; ++i)
                to[i] = static_cast<char>('a' + random.below(26));
            return;
        }
    }
}

/// Eight fields of the kinds that bookkeeping tables are made of.
inline const std::vector<Column> kMixed = {
    {"CODE", 'C', 10}, {"NAME", 'C', 30},  {"PRICE", 'N', 10, 2},  {"QTY", 'N', 6},
    {"SINCE", 'D', 8}, {"ACTIVE", 'L', 1}, {"WEIGHT", 'F', 12, 3}, {"TOWN", 'C', 20}};
/// What filters and calculated fields are measured on.
inline const std::vector<Column> kPeople = {
    {"NAME", 'C', 20}, {"CITY", 'C', 16},  {"PRICE", 'N', 10, 2}, {"QTY", 'N', 5},
    {"BORN", 'D', 8},  {"ACTIVE", 'L', 1}, {"CODE", 'N', 9},      {"NOTE", 'C', 30}};
/// Twelve decimal numbers of mixed widths.
inline const std::vector<Column> kNumbers = {
    {"N1", 'N', 4},     {"N2", 'N', 8, 2},  {"N3", 'N', 10, 2}, {"N4", 'N', 12, 4},
    {"N5", 'N', 6},     {"N6", 'N', 15, 2}, {"N7", 'N', 9, 3},  {"N8", 'N', 3},
    {"N9", 'N', 14, 6}, {"N10", 'N', 10},   {"N11", 'N', 5, 1}, {"N12", 'N', 11, 5}};
/// Binary fields of Visual FoxPro.
inline const std::vector<Column> kBinary = {{"ID", 'I', 4}, {"RATE", 'B', 8, 3}, {"AMOUNT", 'Y', 8},
                                            {"AT", 'T', 8}, {"DAY", 'D', 8},     {"NOTE", 'C', 24}};

/// Visual FoxPro leaves room for the path of a database after the descriptors.
constexpr unsigned char kVisualFoxPro = 0x30;
constexpr std::size_t kBacklinkSize = 263;

/// Writes a table of count records. False when the file could not be written.
inline bool writeTable(const std::string& path, unsigned char version,
                       const std::vector<Column>& columns, unsigned count) {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) return false;
    test::Layout layout{version, columns};
    if (version == kVisualFoxPro) layout.backLink.resize(kBacklinkSize);
    std::string head = layout.bytes().replace(4, 4, test::le(count, 4));
    head.pop_back();  // the end-of-file byte
    bool whole = std::fwrite(head.data(), 1, head.size(), file) == head.size();
    std::vector<char> record(layout.recordLength(), ' ');
    Random random;
    for (unsigned i = 0; i < count && whole; ++i) {
        char* to = record.data() + 1;
        for (const Column& c : columns) {
            putValue(to, c, random);
            to += c.length;
        }
        whole = std::fwrite(record.data(), 1, record.size(), file) == record.size();
    }
    whole = std::fputc(0x1A, file) != EOF && whole;
    return std::fclose(file) == 0 && whole;
}

}  // namespace bench
