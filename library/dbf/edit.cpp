// Structural edits: deletion flags, removing and inserting records, cutting the table. Whatever
// fails on the way stops the edit where it is, in a state in which every record is still in the
// file.
#include "dbf/edit.h"

#include <unistd.h>

#include <algorithm>

#include "dbf/packmemos.h"
#include "dbf/table/position.h"
#include "dbf/table/table.h"
#include "internal/file.h"

namespace mira {

namespace {

constexpr u8 kPresent = ' ';
int writeFlag(DbfBase* h, u32 position, u8 flag) {
    h->DeleteFlag = flag;
    return WriteByte(h, position);
}

/// What moving count bytes needs.
Block<u8> transferBuffer(u64 count) {
    return allocate<u8>(std::clamp<u64>(count, 1, kTransferSize));
}

bool readAt(DbfBase* h, u64 offset, u8* buffer, u64 count) {
    return seekTo(h->TableFile, offset) && readExact(h->TableFile, buffer, static_cast<u32>(count));
}

bool writeAt(DbfBase* h, u64 offset, const u8* buffer, u64 count) {
    return seekTo(h->TableFile, offset) &&
           writeExact(h->TableFile, buffer, static_cast<u32>(count));
}

/// Moves count bytes by one record towards the beginning, first bytes first. A write that stops
/// half-way loses nothing: each byte has been written anew before its old place is.
bool moveDown(DbfBase* h, u64 from, u64 count) {
    const Block<u8> buffer = transferBuffer(count);
    if (!buffer) return false;
    for (u64 done = 0; done < count; done += kTransferSize) {
        const u64 chunk = std::min<u64>(kTransferSize, count - done);
        const u64 offset = from + done;
        if (!readAt(h, offset, buffer.get(), chunk) ||
            !writeAt(h, offset - h->Header.RecordLength, buffer.get(), chunk)) {
            return false;
        }
    }
    return true;
}

/// Moves count bytes by one record towards the end, last bytes first.
bool moveUp(DbfBase* h, u64 from, u64 count) {
    const Block<u8> buffer = transferBuffer(count);
    if (!buffer) return false;
    for (u64 left = count; left > 0;) {
        const u64 chunk = std::min<u64>(kTransferSize, left);
        left -= chunk;
        const u64 offset = from + left;
        if (!readAt(h, offset, buffer.get(), chunk)) return false;
        if (!writeAt(h, offset + h->Header.RecordLength, buffer.get(), chunk)) {
            // A full disk stops the write half-way, over bytes that are not yet at their new place.
            writeAt(h, offset, buffer.get(), chunk);
            return false;
        }
    }
    return true;
}

}  // namespace

int DeleteRecord(DbfBase* h, u32 position) {
    if (ReadByte(h, position) == 0 || h->DeleteFlag == kDeleted) return 1;
    return writeFlag(h, position, kDeleted);
}

int RecallRecord(DbfBase* h, u32 position) {
    if (ReadByte(h, position) == 0 || h->DeleteFlag != kDeleted) return 1;
    return writeFlag(h, position, kPresent);
}

int InverseRecord(DbfBase* h, u32 position) {
    if (ReadByte(h, position) == 0) return 0;
    return writeFlag(h, position, h->DeleteFlag == kDeleted ? kPresent : kDeleted);
}

int Truncate(DbfBase* h, u32 count) {
    if (hasView(h) || h->Reverse != 0 || isPackUnfinished(h)) return 0;
    backUp(h);
    if (InternalSeekRecord(h, count) == 0) return 0;
    dropReadAhead(h);
    if (ftruncate(fileno(h->TableFile), static_cast<off_t>(offsetOf(h, count))) != 0) return 0;
    h->Header.RecordCount = count;
    return WriteHeader(h);
}

int Zap(DbfBase* h) { return Truncate(h, 0); }

int Delete(DbfBase* h, u32 record) {
    const u32 count = h->Header.RecordCount;
    if (hasView(h) || h->Reverse != 0 || record >= count || isPackUnfinished(h)) return 0;
    backUp(h);
    const u64 from = offsetOf(h, record + 1);
    if (!moveDown(h, from, offsetOf(h, count) - from)) return 0;
    return Truncate(h, count - 1);
}

int Insert(DbfBase* h, u32 position, char blank) {
    const u32 count = h->Header.RecordCount;
    if (hasView(h) || position > count || (h->Reverse != 0 && position == count)) return 0;
    if (isPackUnfinished(h)) return 0;
    backUp(h);
    const u32 record = h->Reverse != 0 ? count - 1 - position : position;
    const u64 from = offsetOf(h, record);
    if (!moveUp(h, from, offsetOf(h, count) - from)) return 0;
    if (blank != 0) ClearRecord(h);
    if (WriteRecord(h, position) == 0) return 0;
    ++h->Header.RecordCount;
    return WriteHeader(h);
}

}  // namespace mira
