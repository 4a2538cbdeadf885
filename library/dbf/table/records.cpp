// Counts, positions and reading. The table file is unbuffered; what a reader that goes forward
// needs next is read ahead, a random one reads its record only.
#include <algorithm>
#include <cstring>

#include "dbf/table/movelog.h"
#include "dbf/table/position.h"
#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "internal/file.h"

namespace mira {

bool readTable(DbfBase* h, u64 offset, void* buffer, u32 count, u32* got, bool fresh) {
    if (h->Private != nullptr) {
        const u32 gap = h->Header.RecordLength;
        return h->Private->ahead.read(h->TableFile, offset, buffer, count, gap, fresh, got);
    }
    if (!seekFar(h->TableFile, offset)) return false;
    *got = ReadFile(h->TableFile, buffer, static_cast<i32>(count));
    return true;
}

u32 putTable(DbfBase* h, u64 offset, const void* buffer, u32 count) {
    u32 done = 0;
    if (offset + count > kReachable) return 0;
    if (isOwnStream(h)) {
        done = writePlaced(h->TableFile, offset, buffer, count);
    } else if (seekTo(h->TableFile, offset)) {
        done = writeExact(h->TableFile, buffer, count) ? count : 0;
    } else {
        return 0;
    }
    if (done == count && h->Private != nullptr) {
        h->Private->ahead.wrote(h->TableFile, offset, buffer, count);
    } else {
        tableChanged(h);
    }
    return done;
}

bool writeTable(DbfBase* h, u64 offset, const void* buffer, u32 count) {
    return putTable(h, offset, buffer, count) == count;
}

void tableChanged(DbfBase* h) { changesOf(h->TableFile).fetch_add(1, std::memory_order_acq_rel); }

u32 recordsInFile(const DbfBase* h, u64 size) {
    if (size < h->Header.HeaderLength || h->Header.RecordLength == 0) return 0;
    const u64 count = (size - h->Header.HeaderLength) / h->Header.RecordLength;
    return static_cast<u32>(std::min<u64>(count, kNoPosition - 1));
}

std::optional<u64> unchangedSize(const DbfBase* h, bool mayBeShort) {
    const bool known = h->Private != nullptr && h->Private->file.has_value();
    const std::optional<FileId> own = known ? h->Private->file : fileId(h->TableFile);
    std::optional<FileFacts> facts = factsOf(h->FileName);
    if (facts && facts->id != own) return std::nullopt;
    if (!facts) facts = factsOf(h->TableFile);  // the name leads nowhere
    if (!facts) return std::nullopt;
    // Records that are not there need no header either.
    const u64 end = h->Header.RecordCount != 0 ? offsetOf(h, h->Header.RecordCount) : 0;
    const u64 room = std::max<u64>(h->Header.RecordLength, 2);  // an end byte is no record
    const bool holdsMore = facts->size >= offsetOf(h, h->Header.RecordCount) + room;
    const bool whole = mayBeShort || facts->size >= end;
    return whole && !holdsMore ? std::optional(facts->size) : std::nullopt;
}

u32 reccount(DbfBase* h) {
    if (wasClosed(h)) return 0;
    return h->FilterIndex != nullptr ? h->FilterCount : h->Header.RecordCount;
}

u32 recno(DbfBase* h, u32 position) {
    if (wasClosed(h)) return 0;
    if (h->FilterIndex == nullptr) return position;
    return position < h->FilterCount ? h->FilterIndex[position] : kNoPosition;
}

u32 GetOrder(DbfBase* h, u32 position) {
    if (wasClosed(h)) return 0;
    if (h->SortOrder == nullptr) return position;
    const u32 count = reccount(h);
    if (position >= count) return kNoPosition;
    const u32 kept = sortOrderCount(h);
    return position < (kept != 0 ? kept : count) ? h->SortOrder[position] : position;
}

u32 fieldcount(DbfBase* h) {
    if (wasClosed(h)) return 0;
    const CalcFieldTable* calc = h->CalcFields;
    return calc != nullptr && calc->FieldTotal > 0 ? static_cast<u32>(calc->FieldTotal)
                                                   : h->FieldCount;
}

i32 fieldno(DbfBase* h, int index) {
    if (wasClosed(h)) return 0;
    return index >= 0 && index < static_cast<int>(kFieldMax) ? h->FieldMap[index] : -1;
}

int SeekRecord(DbfBase* h, u32 position) {
    const std::optional<u32> record = recordAt(h, position);
    return record && seekFar(h->TableFile, offsetOf(h, *record)) ? 1 : 0;
}

int InternalSeekRecord(DbfBase* h, u32 record) {
    return seekFar(h->TableFile, offsetOf(h, record)) ? 1 : 0;
}

int SeekField(DbfBase* h, u32 position, int field) {
    const DbfField* f = tableField(h, field);
    const std::optional<u32> record = recordAt(h, position);
    if (f == nullptr || !record) return 0;
    return seekFar(h->TableFile, offsetOf(h, *record, f->Offset)) ? 1 : 0;
}

bool readPhysicalRecord(DbfBase* h, u32 record) {
    u32 got = 0;
    const u32 length = h->Header.RecordLength;
    if (!readTable(h, offsetOf(h, record), h->RecordBuffer, length, &got)) return false;
    if (h->AfterRead != nullptr) h->AfterRead(h);
    return got == length;
}

int ReadRecord(DbfBase* h, u32 position) {
    const std::optional<u32> record = recordAt(h, position);
    return record && readPhysicalRecord(h, *record) ? 1 : 0;
}

int GetRecord(DbfBase* h, u32 position) {
    if (isClosed(h) || position == kNoPosition) return 0;
    if (position == h->CurrentRecord) return 1;
    h->CurrentRecord = position;
    return ReadRecord(h, position);
}

bool readFlag(DbfBase* h, u32 position, bool fresh) {
    const std::optional<u32> record = recordAt(h, position);
    u32 got = 0;
    if (!record || !readTable(h, offsetOf(h, *record), &h->DeleteFlag, 1, &got, fresh))
        return false;
    if (h->AfterReadByte != nullptr) h->AfterReadByte(h);
    return got == 1;
}

int ReadByte(DbfBase* h, u32 position) { return readFlag(h, position, false) ? 1 : 0; }

int ReadField(DbfBase* h, u32 position, int field) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr || isClosed(h)) return 0;
    const std::optional<u32> record = recordAt(h, position);
    if (!record) return 0;
    u32 got = 0;
    const std::span<u8> bytes = fieldBytes(h, field);
    const auto length = static_cast<u32>(bytes.size());
    const bool read = readTable(h, offsetOf(h, *record, f->Offset), bytes.data(), length, &got);
    return read && got == length ? 1 : 0;
}

int RefreshDatabase(DbfBase* h) {
    if (h->Private != nullptr) h->Private->ahead.drop();
    const std::optional<u64> size = fileSize(h->TableFile);
    if (!size) return 0;
    if (h->Private != nullptr) h->Private->halfEdited = false;
    const u32 count = countRecords(h, *size);
    if (count == h->Header.RecordCount) return 0;
    h->Header.RecordCount = count;
    return 1;
}

}  // namespace mira
