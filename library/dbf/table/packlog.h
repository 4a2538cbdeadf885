// The log of a Pack that was interrupted while records got the references to a new memo file. It
// stands in that file, and until Pack has finished its work nobody can tell which memo file a
// reference means: no memo is read or written, records keep their places, and no reference gets
// into another record.
//
// Beginning of a memo file with a log, in what are zeros otherwise:
//
//   24  16  "Pack unfinished" 00
//   40  24  where the log is (memo/rebuild.h)
//
// It is looked for anew each time, as another handle may have packed meanwhile.
#pragma once

#include <span>

#include "dbf/table/private.h"
#include "dbf/table/table.h"

namespace mira {

inline constexpr u32 kPackSignPlace = 24;
inline constexpr char kPackSign[16] = "Pack unfinished";
inline constexpr u32 kMemoHeadSize = 64;  // a shorter file has no log

/// The beginning of a memo file; size counts what the file has of it.
struct MemoHead {
    u8 bytes[kMemoHeadSize];
    u32 size = 0;

    bool hasLog() const {
        return size == kMemoHeadSize &&
               std::memcmp(bytes + kPackSignPlace, kPackSign, sizeof kPackSign) == 0;
    }
};
/// Reads it. False when it could not be read.
bool readMemoHead(int descriptor, MemoHead*);
bool readMemoHead(std::FILE*, MemoHead*);

/// IsPackUnfinished, of the memo file alone.
int hasMemoLog(DbfBase*);

/// Whether a field holds memo references: wide text in a memo field does not.
bool holdsReference(DbfBase*, int field);
/// Whether the bytes of such a field stand for no memo.
bool isBlankReference(const DbfBase*, const DbfField&, std::span<const u8> bytes);

/// What mayWriteReferences asks of a table with memo fields.
bool mayWriteMemoFields(DbfBase*, u32 record, u32 column, u32 count);

/// Whether RecordBuffer may go into a record of the file, count bytes from a column on: while there
/// is a log, references may be cleared or written over themselves, not changed.
inline bool mayWriteReferences(DbfBase* h, u32 record, u32 column, u32 count) {
    return h->FirstMemoField == -1 || count == 1 || isPacking(h) ||
           mayWriteMemoFields(h, record, column, count);
}

}  // namespace mira
