// Counts, positions and reading. The table file is unbuffered; a sequential reader is served from
// AheadBuffer, one read for many records; a random one reads its record only.
#include <algorithm>
#include <cstring>

#include "dbf/table/position.h"
#include "dbf/table/table.h"
#include "internal/file.h"

namespace mira {
namespace {

constexpr u32 kPageSize = 4096;

/// Bytes that AheadBuffer holds from an offset on.
u32 aheadFrom(const DbfBase* h, u64 offset) {
    if (h->AheadVersion != writeVersion() || offset < h->AheadOffset) return 0;
    const u64 skipped = offset - h->AheadOffset;
    return skipped < h->AheadLength ? h->AheadLength - static_cast<u32>(skipped) : 0;
}

/// A read that starts less than a record behind the last one continues it.
bool isSequential(const DbfBase* h, u64 offset, u32 count) {
    return count <= kAheadSize / 2 && offset >= h->LastReadEnd &&
           offset - h->LastReadEnd < h->Header.RecordLength;
}

/// Reads ahead from the file's position, at least count bytes. Where writes spoil what was read
/// ahead (a program copying one table into another), a page costs no more than a record.
void fillAhead(DbfBase* h, u64 offset, u32 count) {
    const u32 version = writeVersion();  // before the read: a write meanwhile spoils it
    const bool spoiled = h->AheadLength != 0 && h->AheadVersion != version;
    h->AheadVersion = version;
    h->AheadOffset = offset;
    h->AheadLength = ReadFile(h->TableFile, h->AheadBuffer,
                              static_cast<i32>(spoiled ? std::max(count, kPageSize) : kAheadSize));
}

}  // namespace

bool readTable(DbfBase* h, u64 offset, void* buffer, u32 count, u32* got) {
    *got = 0;
    if (offset > kReachable) return false;
    if (aheadFrom(h, offset) >= count && count != 0) {
        *got = count;
        std::memcpy(buffer, h->AheadBuffer + (offset - h->AheadOffset), count);
    } else if (!seekTo(h->TableFile, offset)) {
        return false;
    } else if (isSequential(h, offset, count)) {
        fillAhead(h, offset, count);
        *got = std::min(count, h->AheadLength);
        std::memcpy(buffer, h->AheadBuffer, *got);
    } else {
        dropReadAhead(h);
        *got = ReadFile(h->TableFile, buffer, static_cast<i32>(count));
    }
    h->LastReadEnd = offset + *got;
    return true;
}

bool writeTableHere(DbfBase* h, u64 offset, const void* buffer, u32 count) {
    const bool valid = h->AheadVersion == writeVersion();
    if (!writeExact(h->TableFile, buffer, count)) {
        dropReadAhead(h);
        return false;
    }
    if (!valid || writeVersion() != h->AheadVersion + 1) return true;
    // Only this write has happened since: the bytes read ahead stay valid where it is carried over.
    const u64 start = std::max(offset, h->AheadOffset);
    const u64 end = std::min(offset + count, h->AheadOffset + h->AheadLength);
    if (start < end) {
        std::memcpy(h->AheadBuffer + (start - h->AheadOffset),
                    static_cast<const u8*>(buffer) + (start - offset), end - start);
    }
    ++h->AheadVersion;
    return true;
}

bool writeTable(DbfBase* h, u64 offset, const void* buffer, u32 count) {
    return seekTo(h->TableFile, offset) && writeTableHere(h, offset, buffer, count);
}

void dropReadAhead(DbfBase* h) { h->AheadLength = 0; }

u32 recordsInFile(const DbfBase* h, u64 size) {
    if (size < h->Header.HeaderLength || h->Header.RecordLength == 0) return 0;
    const u64 count = (size - h->Header.HeaderLength) / h->Header.RecordLength;
    return static_cast<u32>(std::min<u64>(count, kNoPosition - 1));
}

u32 reccount(DbfBase* h) {
    return h->FilterIndex != nullptr ? h->FilterCount : h->Header.RecordCount;
}

u32 recno(DbfBase* h, u32 position) {
    if (h->FilterIndex == nullptr) return position;
    return position < h->FilterCount ? h->FilterIndex[position] : kNoPosition;
}

u32 GetOrder(DbfBase* h, u32 position) {
    if (h->SortOrder == nullptr) return position;
    const u32 count = reccount(h);
    if (position >= count) return kNoPosition;
    const u32 sorted = h->SortOrderCount != 0 ? h->SortOrderCount : count;
    return position < sorted ? h->SortOrder[position] : position;
}

u32 fieldcount(DbfBase* h) {
    const CalcFieldTable* calc = h->CalcFields;
    return calc != nullptr && calc->FieldTotal > 0 ? static_cast<u32>(calc->FieldTotal)
                                                   : h->FieldCount;
}

i32 fieldno(DbfBase* h, int index) {
    return index >= 0 && index < static_cast<int>(kFieldMax) ? h->FieldMap[index] : -1;
}

int SeekRecord(DbfBase* h, u32 position) {
    u32 record = 0;
    return recordAt(h, position, &record) && seekTo(h->TableFile, offsetOf(h, record)) ? 1 : 0;
}

int InternalSeekRecord(DbfBase* h, u32 record) {
    return seekTo(h->TableFile, offsetOf(h, record)) ? 1 : 0;
}

int SeekField(DbfBase* h, u32 position, int field) {
    const DbfField* f = tableField(h, field);
    u32 record = 0;
    if (f == nullptr || !recordAt(h, position, &record)) return 0;
    return seekTo(h->TableFile, offsetOf(h, record, f->Offset)) ? 1 : 0;
}

int ReadRecord(DbfBase* h, u32 position) {
    u32 record = 0;
    u32 got = 0;
    const u32 length = h->Header.RecordLength;
    if (!recordAt(h, position, &record) ||
        !readTable(h, offsetOf(h, record), h->RecordBuffer, length, &got)) {
        return 0;
    }
    if (h->AfterRead != nullptr) h->AfterRead(h);
    return got == length ? 1 : 0;
}

int GetRecord(DbfBase* h, u32 position) {
    if (position == h->CurrentRecord && position != kNoPosition) return 1;
    h->CurrentRecord = position;
    return ReadRecord(h, position);
}

int ReadByte(DbfBase* h, u32 position) {
    u32 record = 0;
    u32 got = 0;
    if (!recordAt(h, position, &record) ||
        !readTable(h, offsetOf(h, record), &h->DeleteFlag, 1, &got)) {
        return 0;
    }
    if (h->AfterReadByte != nullptr) h->AfterReadByte(h);
    return got == 1 ? 1 : 0;
}

int ReadField(DbfBase* h, u32 position, int field) {
    const DbfField* f = tableField(h, field);
    u32 record = 0;
    u32 got = 0;
    if (f == nullptr || !recordAt(h, position, &record)) return 0;
    const std::span<u8> bytes = fieldBytes(h, field);
    const auto length = static_cast<u32>(bytes.size());
    if (!readTable(h, offsetOf(h, record, f->Offset), bytes.data(), length, &got)) return 0;
    return got == length ? 1 : 0;
}

int RefreshDatabase(DbfBase* h) {
    dropReadAhead(h);
    u64 size = 0;
    if (!fileSize(h->TableFile, &size)) return 0;
    const u32 count = recordsInFile(h, size);
    if (count == h->Header.RecordCount) return 0;
    h->Header.RecordCount = count;
    return 1;
}

}  // namespace mira
