// Memos: the reference in the record leads to a block, whose beginning may tell the length. Blocks
// of 0 bytes hold nothing.
//
//   format     version               unit at, size      block begins with
//   dBase III  03 83                 512                the data, up to a byte 0x1A
//   dBase IV   04 8B 8C, or level 7  20, 2, little      FF FF 08 00, then 8 + length, 4, little
//   FoxPro     30 31 32 F5           6, 2, big          00 00 00, any byte, then length, 4, big
//   SMT        E5                    4, 2, little       the data; the length is in the record
#include <algorithm>
#include <cstdlib>

#include "dbf/table/private.h"
#include "support/reference.h"

namespace test {
namespace {

constexpr std::size_t kTextMost = 65535;  // bytes of a dBase III memo

struct Format {
    std::string_view versions;
    std::size_t headerSize;  ///< of which nothing may be missing, but for SMT
    std::size_t unitAt;
    bool bigEndian;
    std::string_view mark;
};
constexpr Format kFormats[] = {{"\x03\x83", 0, 0, false, ""},
                               {"\x04\x8B\x8C", 24, 20, false, {"\xFF\xFF\x08\0", 4}},
                               {"\x30\x31\x32\xF5", 8, 6, true, {"\0\0\0", 3}},
                               {"\xE5", 16, 4, false, ""}};
constexpr const Format& kDBase3 = kFormats[0];
constexpr const Format& kSmt = kFormats[3];

/// The block of a reference that is no SMT reference.
u64 blockOf(const Row& row, int field) {
    const DbfField& f = row[field];
    if (f.Length != 4 || f.Decimals != 0) {
        const double digits = std::atof(std::string(row.from(field).substr(0, f.Length)).c_str());
        if (digits != digits) return 0;
        return static_cast<u32>(static_cast<i32>(std::clamp(digits, -2147483648.0, 2147483647.0)));
    }
    const u64 block = load(row.from(field), 0, 4, row.h->Level7 != 0);
    if (row.h->Level7 == 0) return block;
    return isForeignLevel7(row.h) ? block ^ 1u << 31 : block & 0x7FFFFFFF;
}

}  // namespace

std::optional<std::string> memo(const Row& row, int field, std::string_view file) {
    const char version = static_cast<char>(row.h->Header.Version);
    const auto* const format = std::find_if(std::begin(kFormats), std::end(kFormats), [&](auto& f) {
        return f.versions.find(version) != std::string_view::npos;
    });
    if (format == std::end(kFormats)) return std::nullopt;
    const bool smt = format == &kSmt;
    const u64 block = smt ? load(row.from(field), 6, 4) : blockOf(row, field);
    if (!smt && block == 0) return std::nullopt;

    const bool whole = file.size() >= format->headerSize;
    if (!whole && !smt) return std::nullopt;
    const u64 unit = format == &kDBase3 ? 512
                     : whole            ? load(file, format->unitAt, 2, format->bigEndian)
                                        : 256;
    if (unit * block > 0x7FFFFFFF) return std::nullopt;
    if (unit == 0) return std::nullopt;
    const auto place = static_cast<std::size_t>(unit * block);
    const std::string_view at = file.substr(std::min(place, file.size()));
    if (smt) return std::string(at.substr(0, static_cast<u32>(load(row.from(field), 2, 4))));
    if (format == &kDBase3) return cString(at.substr(0, std::min(at.find('\x1A'), kTextMost)));
    if (at.size() < 8 || !at.starts_with(format->mark)) return std::nullopt;
    const auto length = static_cast<u32>(load(at, 4, 4, format->bigEndian));
    const u32 prefix = format->bigEndian ? 0 : 8;
    if (length < prefix) return std::nullopt;
    return std::string(at.substr(8, length - prefix));
}

}  // namespace test
