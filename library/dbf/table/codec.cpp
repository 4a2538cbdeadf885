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
#include <cstring>

#include "dbf/table/table.h"
#include "internal/bytes.h"
#include "internal/clock.h"

namespace mira {
namespace {

constexpr u32 kTypePlace = 11;
constexpr u32 kOffsetPlace = 12;
constexpr u32 kLengthPlace = 16;
constexpr u32 kDecimalsPlace = 17;
constexpr u32 kWorkAreaPlace = 20;
constexpr u32 kTypePlace7 = 32;
constexpr u32 kForeignLengthPlace7 = 33;
constexpr u32 kLengthPlace7 = 34;
constexpr u32 kDecimalsPlace7 = 35;
constexpr u32 kOffsetPlace7 = 36;

constexpr u32 kNameLength = 10;
constexpr u32 kNameLength7 = 31;

void copyName(char* to, const u8* from, u32 limit) {
    const void* end = std::memchr(from, 0, limit);
    const std::size_t length =
        end != nullptr ? static_cast<std::size_t>(static_cast<const u8*>(end) - from) : limit;
    std::memcpy(to, from, length);
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
    if (!localTime(std::time(nullptr), &now)) return;
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

void encodeDescriptor(const DbfField& f, u32 descriptorSize, u8* to) {
    std::memset(to, 0, descriptorSize);
    if (descriptorSize == kDescriptorSize7) {
        std::memcpy(to, f.Name, sizeof f.Name);
        to[kTypePlace7] = static_cast<u8>(f.Type);
        to[kLengthPlace7] = f.Length;
        to[kDecimalsPlace7] = f.Decimals;
        storeLe16(to + kOffsetPlace7, f.Offset);
    } else {
        std::memcpy(to, f.Name, kNameLength);
        to[kTypePlace] = static_cast<u8>(f.Type);
        to[kLengthPlace] = f.Length;
        to[kDecimalsPlace] = f.Decimals;
        storeLe16(to + kOffsetPlace, f.Offset);
        to[kWorkAreaPlace] = f.WorkArea;
    }
}

DbfField decodeDescriptor(const u8* from, u32 descriptorSize, bool foreign) {
    DbfField f{};
    if (descriptorSize == kDescriptorSize7) {
        copyName(f.Name, from, kNameLength7);
        f.Type = static_cast<char>(from[kTypePlace7]);
        f.Length = from[foreign ? kForeignLengthPlace7 : kLengthPlace7];
        f.Decimals = from[foreign ? kLengthPlace7 : kDecimalsPlace7];
    } else {
        copyName(f.Name, from, kNameLength);
        f.Type = static_cast<char>(from[kTypePlace]);
        f.Length = from[kLengthPlace];
        f.Decimals = from[kDecimalsPlace];
        f.WorkArea = from[kWorkAreaPlace];
    }
    return f;
}

}  // namespace mira
