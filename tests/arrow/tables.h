// Tables of every type whose cells are of all sorts, for tests and as inputs of the fuzz target.
#pragma once

#include <random>

#include "support/tables.h"

namespace test {

/// A cell of a type: mostly as programs store it, else blank, bad or any bytes.
inline std::string randomCell(const Column& column, std::mt19937& random) {
    const auto below = [&](unsigned limit) { return static_cast<unsigned>(random() % limit); };
    const auto oneOf = [&](std::initializer_list<std::string> texts) {
        return texts.begin()[below(static_cast<unsigned>(texts.size()))];
    };
    const unsigned width = column.width();
    const auto fitted = [&](std::string text) {
        text.resize(width, ' ');
        return text;
    };
    const auto anyBytes = [&] {
        std::string bytes(width, '\0');
        for (char& c : bytes) c = static_cast<char>(random());
        return bytes;
    };
    switch (below(12)) {
        case 0:
            return std::string(width, ' ');
        case 1:
            return std::string(width, '\0');
        case 2:
            return anyBytes();
        default:
            break;
    }
    switch (column.type) {
        case 'C':
        case 'V':
        case 'Q': {
            std::string text = oneOf({"", "a", "plain text", "ends in blanks  ", "\x8F\xE0\xA8\xA2",
                                      "Gr\xC3\xBC\xC3\x9F"
                                      "e",
                                      std::string("zero\0inside", 11), "eight by",
                                      "exactly sixteen.", "0123456789abcde\xE9 and on"});
            if (below(3) == 0) text.insert(0, below(9), ' ');
            text = fitted(std::move(text));
            if (column.type != 'C') text.back() = static_cast<char>(below(width + 1));
            return text;
        }
        case 'N':
        case 'F': {
            const std::string odd =
                oneOf({"-",     "+7",   ".",     "1e3",   "-.5",     "5.",   "1 2",
                       "--1",   "1-",   "0.1.2", "007",   "-0",      "1e-9", "9e99",
                       "*****", "12.5", "1\0"s,  "-0.00", "0000.50", "1e400"});
            if (column.decimals != 0 && column.decimals < width && below(20) == 0) {
                // A point with nothing, or something odd, beside it.
                std::string text(width, ' ');
                text[width - column.decimals - 1] = '.';
                if (below(2) == 0) text[below(width)] = "0-+ "[below(4)];
                return text;
            }
            if (below(6) == 0) return below(2) == 0 ? fitted(odd) : padded(odd, width);
            std::string digits = std::to_string(random() % 100000);
            if (below(4) == 0) digits = std::string(width, static_cast<char>('0' + below(10)));
            if (column.decimals != 0)
                digits += "." + std::string(column.decimals, static_cast<char>('0' + below(10)));
            if (below(4) == 0) digits.insert(0, 1, '-');
            if (digits.size() > width) digits.erase(0, digits.size() - width);
            return std::string(width - digits.size(), ' ') + digits;
        }
        case 'D':
            return fitted(
                oneOf({"20240229", "20230229", "19000229", "20000229", "00000101", "99991231",
                       "20241301", "20240100", "2024 101", "00000000", "17520914", "19991301"}));
        case 'T':
        case '@': {
            const u32 day = static_cast<u32>(1721059 + random() % 3652428);
            const u32 moment = below(8) == 0 ? static_cast<u32>(random()) : below(86400000);
            return fitted(le(day, 4) + le(moment, 4));
        }
        case 'L':
            return fitted(oneOf({"T", "t", "Y", "y", "F", "f", "N", "n", "?", " ", "x", "1"}));
        default:
            return anyBytes();
    }
}

/// The bytes of a table of so many records.
inline std::string randomTable(std::mt19937& random, unsigned records) {
    static const std::vector<Column> kinds = {
        {"", 'C', 1},      {"", 'C', 7},     {"", 'C', 8},      {"", 'C', 30},    {"", 'C', 80},
        {"", 'N', 1},      {"", 'N', 5},     {"", 'N', 8},      {"", 'N', 9},     {"", 'N', 16},
        {"", 'N', 18},     {"", 'N', 19},    {"", 'N', 38},     {"", 'N', 40},    {"", 'N', 8, 2},
        {"", 'N', 10, 2},  {"", 'N', 17, 8}, {"", 'N', 18, 1},  {"", 'N', 20, 4}, {"", 'N', 3, 2},
        {"", 'F', 12, 11}, {"", 'N', 2, 1},  {"", 'F', 20, 18}, {"", 'D', 8},     {"", 'L', 1},
        {"", 'I', 4},      {"", 'B', 8},     {"", 'Y', 8},      {"", 'T', 8},     {"", '@', 8},
        {"", 'O', 8},      {"", '+', 4},     {"", 'V', 9},      {"", 'Q', 9},     {"", 'M', 4},
        {"", 'M', 10},     {"", 'G', 10},    {"", 'X', 5},      {"", 'T', 14},    {"", 'B', 10}};
    static const std::vector<unsigned> versions = {0x03, 0x30, 0xF5, 0x8C, 0x30};
    Layout layout;
    layout.version = static_cast<unsigned char>(versions[random() % versions.size()]);
    layout.flavour =
        layout.version == 0x8C ? (random() % 2 != 0 ? kLevel7 : kForeignLevel7) : kPlain;
    const unsigned count = 1 + static_cast<unsigned>(random() % 12);
    for (unsigned i = 0; i < count; ++i) {
        layout.columns.push_back(kinds[random() % kinds.size()]);
        layout.columns.back().name = printed("F%u", i);
    }
    if (layout.version == 0x30) layout.columns.push_back({"_NullFlags", '0', 2});
    for (unsigned i = 0; i < records; ++i) {
        std::string record(1, random() % 7 == 0 ? '*' : ' ');
        for (const Column& column : layout.columns) record += randomCell(column, random);
        layout.records.push_back(record);
    }
    std::string bytes = layout.bytes();
    constexpr unsigned char kMarks[] = {0, 0x26, 0x03, 0x78, 0xF0};
    bytes[29] = static_cast<char>(kMarks[random() % std::size(kMarks)]);
    if (layout.version == 0x30) {
        // Null and binary, as descriptors say; the null flags are a system field.
        for (unsigned i = 0; i <= count; ++i) {
            bytes[32 + 32 * i + 18] = static_cast<char>(i == count ? 5 : (random() % 4) << 1);
        }
    }
    return bytes;
}

}  // namespace test
