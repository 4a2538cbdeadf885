// Flavours of tables: one row for each, selected by the version byte of a table that is read and by
// the kind of a table or memo file that is made.
#pragma once

#include <algorithm>
#include <array>
#include <string_view>

#include "mira.h"

namespace mira {

/// Formats of memo files; the memo module has a row for each.
enum class MemoFormat : u8 { None, DBase3, DBase4, FoxPro, Smt };

struct Flavour {
    u32 kind;
    const char* name;
    u8 version;                 ///< of a new table with memos
    std::string_view versions;  ///< of the tables that belong here
    u32 headerSize;
    u32 descriptorSize;
    u32 backLinkSize;        ///< zeros after the terminator of a new table
    u8 memoFlags;            ///< table flags and code page mark of a new table with memos
    u8 momentSize;           ///< bytes of a new date-time
    u8 referenceSize;        ///< bytes of a new memo reference
    bool memoInB;            ///< a new B or O field without a length of its own is a memo
    const char* extension;   ///< of the memo file
    MemoFormat memos;        ///< what memos are read and written as
    bool lengthInReference;  ///< a reference is ten binary bytes and holds the memo's length
};

// Sizes of the table format.
inline constexpr u32 kHeaderSize = 32;
inline constexpr u32 kDescriptorSize = 32;
inline constexpr u32 kHeaderSize7 = 68;  // level 7
inline constexpr u32 kDescriptorSize7 = 48;
inline constexpr u32 kBackLinkSize = 263;

inline constexpr u8 kVersionPlain = 0x03;  // of every new table without memos
inline constexpr u8 kVersionFoxPro = 0xF5;
inline constexpr u32 kLevel7Kind = 7;  // of all tables with the larger header

namespace flavours {

inline constexpr auto kH = kHeaderSize;
inline constexpr auto kD = kDescriptorSize;
using enum MemoFormat;

inline constexpr Flavour kFlavours[] = {
    // kind, name, version, versions, header, descriptor, back link, memo flags, moment, reference,
    // memo in B, extension, memos, length in reference
    {0, "dBase III", 0x83, "\x83\x03", kH, kD, 0, 0, 14, 10, false, ".dbt", DBase3, false},
    {1, "FoxPro", kVersionFoxPro, "\xF5", kH, kD, 0, 0, 14, 10, false, ".fpt", FoxPro, false},
    {2, "dBase IV", 0x8B, "\x8B\x04", kH, kD, 0, 0, 14, 10, true, ".dbt", DBase4, false},
    {3, "Visual FoxPro", 0x30, "\x30\x31\x32", kH, kD, kBackLinkSize, 3, 8, 4, false, ".fpt",
     FoxPro, false},
    {4, "SMT", 0xE5, "\xE5", kH, kD, 0, 0, 14, 10, false, ".smt", Smt, true},
    {kLevel7Kind, "level 7", 0x8C, "\x8C", kHeaderSize7, kDescriptorSize7, 0, 0, 14, 10, false,
     ".dbt", DBase4, false},
    // Other kinds, and versions whose memos nobody can read. These count as kind 0.
    {0, "dBase family", kVersionPlain, "\x02\x43\x63\xCB\xFB\x42\x62\x82\x8A\xCA\xF4\xFA", kH, kD,
     0, 0, 14, 10, false, ".dbv", None, false},
};
inline constexpr std::size_t kOther = std::size(kFlavours) - 1;

/// Index into kFlavours by version byte; beyond its end for a version that is not accepted.
inline constexpr std::array<u8, 256> kRowOfVersion = [] {
    std::array<u8, 256> rows{};
    rows.fill(std::size(kFlavours));
    for (std::size_t i = 0; i < std::size(kFlavours); ++i) {
        for (const char version : kFlavours[i].versions) {
            rows[static_cast<u8>(version)] = static_cast<u8>(i);
        }
    }
    return rows;
}();

}  // namespace flavours

inline bool acceptedVersion(u8 version) {
    return flavours::kRowOfVersion[version] < std::size(flavours::kFlavours);
}

inline const Flavour& flavourOf(u8 version) {
    const std::size_t row = flavours::kRowOfVersion[version];
    return flavours::kFlavours[std::min(row, flavours::kOther)];
}

inline const Flavour& flavourOfKind(u32 kind) {
    for (const Flavour& flavour : flavours::kFlavours) {
        if (flavour.kind == kind) return flavour;
    }
    return flavours::kFlavours[flavours::kOther];
}

}  // namespace mira
