// The log of a Pack that moves records. It stands behind them in the table file until the file is
// cut, so that what a kill or a power cut leaves can be finished by the next Pack.
//
// Behind the N records there are:
//
//   record N              1A "Pack unfinished" 00, by which a file is known that a kill has left
//                         before there was a slot
//   record N + 1          two areas of G records each, for spare copies
//   record N + 1 + 2 * G  two slots of 512 bytes; the file ends behind them
//
// A slot:
//
//    0  16  "Pack unfinished" 00
//   16   4  turn: counts from 1; the slot and the area of a turn are number (turn modulo 2)
//   20   4  N
//   24   4  from: the records from here on have not moved
//   28   4  to: those before are at their new places, on the disk
//   32   4  G
//   36   4  spare: how many records, from "from" on, the area holds
//   40   8  checksum of these
//   48   8  checksum of the bytes before
//
// (little-endian.) The slot of the later turn counts. A turn writes only to places before record
// number from + spare - 1, and is on the disk before the next one's slot is written. A spare copy
// that does not have its checksum was not on the disk, so that its turn has not written anything.
#pragma once

#include <array>
#include <optional>

#include "dbf/table/table.h"

namespace mira {

inline constexpr u32 kMoveSlotSize = 512;

struct MoveLog {
    u32 turn = 0;  ///< 0: nothing has been moved
    u32 records = 0;
    u32 from = 0, to = 0;
    u32 areaRecords = 0;
    u32 spare = 0;
    u64 spareSum = 0;

    /// The first record number of the area for spare copies.
    u32 area() const { return records + 1 + (turn % 2) * areaRecords; }
    /// The place in the file of the slots, and of one.
    u64 slots(const DbfBase*) const;
    u64 slot(const DbfBase* h) const { return slots(h) + u64{turn % 2} * kMoveSlotSize; }
};

inline constexpr u64 kMoveSumStart = 0xCBF29CE484222325;
/// Of bytes that come in pieces of any multiple of 8, but for the last.
u64 moveSum(u64 before, const u8* bytes, std::size_t count);

/// What stands behind the last record.
inline constexpr u32 kMoveMarkSize = 17;
using MoveMark = std::array<u8, kMoveMarkSize>;
MoveMark moveMark();

inline constexpr u32 kMoveHeadSize = 56;
void encodeMoveLog(const MoveLog&, u8 to[kMoveHeadSize]);

/// Looks for it in a file of a size; false when the file cannot be read.
bool findMoveLog(const DbfBase*, u64 size, std::optional<MoveLog>*);
/// The records of a file of a size, which the copies behind them are not.
u32 countRecords(const DbfBase*, u64 size);

}  // namespace mira
