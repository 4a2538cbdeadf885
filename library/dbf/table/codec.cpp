// The codec of the fixed header and the field descriptors. All numbers are little-endian.
//
//   fixed header     32 bytes, 68 in a level-7 table
//     0   1  version            4   4  record count
//     1   3  update y, m, d     8   2  header length: offset of record 0
//                              10   2  record length
//     12     carried unchanged
//   descriptors      32 bytes each              48 bytes each in a level-7 table
//     0  11  name                                0  32  name
//    11   1  type letter                        32   1  type letter
//    12   2  offset in the record               33   1  length, in tables of other makers
//    16   1  length                             34   1  length (decimals of other makers)
//    17   1  decimals                           35   1  decimals
//    20   1  work area                          36   2  offset in the record
//   terminator       0x0D
//   records          from the header length on; byte 0 is the deletion flag
//   end of file      0x1A
#include <algorithm>
#include <cstring>

#include "dbf/table/table.h"
#include "internal/bytes.h"
#include "internal/clock.h"

namespace mira {
namespace {

/// Bytes of the name, and where a descriptor has what follows it.
struct DescriptorPlaces {
    u32 nameSize, type, length, decimals, offset;
};
constexpr DescriptorPlaces kPlaces = {10, 11, 16, 17, 12};
constexpr DescriptorPlaces kPlaces7 = {32, 32, 34, 35, 36};
constexpr DescriptorPlaces kForeignPlaces7 = {32, 32, 33, 34, 36};
constexpr u32 kWorkAreaPlace = 20;
constexpr int kTwoDigitYears = 100;

const DescriptorPlaces& placesOf(u32 descriptorSize, bool foreign) {
    if (descriptorSize != kDescriptorSize7) return kPlaces;
    return foreign ? kForeignPlaces7 : kPlaces7;
}

}  // namespace

void decodeHeader(const u8* from, DbfHeader* header) {
    header->Version = from[0];
    header->UpdateYear = from[1];
    header->UpdateMonth = from[2];
    header->UpdateDay = from[3];
    header->RecordCount = loadLe32(from + 4);
    header->HeaderLength = loadLe16(from + 8);
    header->RecordLength = loadLe16(from + 10);
    std::memcpy(header->Rest, from + 12, sizeof header->Rest);
}

void stampDate(DbfHeader* header, int yearLimit) {
    std::tm now;
    if (!localTimeNow(&now)) return;
    int year = now.tm_year;
    while (year >= yearLimit) year -= 100;
    header->UpdateYear = static_cast<u8>(year);
    header->UpdateMonth = static_cast<u8>(now.tm_mon + 1);
    header->UpdateDay = static_cast<u8>(now.tm_mday);
}

void encodeHeader(const DbfHeader& header, u8* to) {
    to[0] = header.Version;
    to[1] = header.UpdateYear;
    to[2] = header.UpdateMonth;
    to[3] = header.UpdateDay;
    storeLe32(to + 4, header.RecordCount);
    storeLe16(to + 8, header.HeaderLength);
    storeLe16(to + 10, header.RecordLength);
    std::memcpy(to + 12, header.Rest, sizeof header.Rest);
}

void StampHeader(DbfHeader* header) { stampDate(header, kTwoDigitYears); }

void GetHeaderBytes(const DbfHeader* header, u8* bytes) { encodeHeader(*header, bytes); }

void encodeDescriptor(const DbfField& f, u32 descriptorSize, u8* to) {
    const DescriptorPlaces& at = placesOf(descriptorSize, false);
    std::memset(to, 0, descriptorSize);
    std::memcpy(to, f.Name, at.nameSize);
    to[at.type] = static_cast<u8>(f.Type);
    to[at.length] = f.Length;
    to[at.decimals] = f.Decimals;
    storeLe16(to + at.offset, f.Offset);
    if (descriptorSize == kDescriptorSize) to[kWorkAreaPlace] = f.WorkArea;
}

DbfField decodeDescriptor(const u8* from, u32 descriptorSize, bool foreign) {
    const DescriptorPlaces& at = placesOf(descriptorSize, foreign);
    DbfField f{};
    const std::size_t longest = std::min<std::size_t>(at.nameSize, sizeof f.Name - 1);
    std::memcpy(f.Name, from, strnlen(reinterpret_cast<const char*>(from), longest));
    f.Type = static_cast<char>(from[at.type]);
    f.Length = from[at.length];
    f.Decimals = from[at.decimals];
    if (descriptorSize == kDescriptorSize) f.WorkArea = from[kWorkAreaPlace];
    return f;
}

}  // namespace mira
