// Writing records and the header. Whatever a call reports as written has reached
// the operating system.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "dbf/table/packlog.h"
#include "dbf/table/position.h"
#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "internal/file.h"
#include "internal/restore.h"

namespace mira {

namespace {

constexpr u8 kEndOfFile = 0x1A;

/// The sequence all record writers share once the backup is made and the record is known: a place
/// that cannot be reached stops it before the hook is called and Modified is set.
int writeAt(DbfBase* h, u32 record, u32 column, RecordHook hook, const void* bytes, u32 count) {
    const u64 offset = offsetOf(h, record, column);
    if (isClosed(h) || !isWithinReach(h, record)) return 0;
    if (hook != nullptr) hook(h);
    if (!mayWriteReferences(h, record, column, count)) return 0;
    h->Modified = 1;
    return writeTable(h, offset, bytes, count) ? 1 : 0;
}

/// writeAt for a column of the record that a position designates.
int writeMapped(DbfBase* h, u32 position, u32 column, RecordHook hook, const void* bytes,
                u32 count) {
    backUp(h);
    const std::optional<u32> record = recordAt(h, position);
    return record ? writeAt(h, *record, column, hook, bytes, count) : 0;
}

/// Room for an entry beyond count in a view's index; the old entries stay.
bool growIndex(u32** index, u32 count) {
    if (*index == nullptr) return true;
    void* larger = std::realloc(*index, (std::size_t{count} + 1) * sizeof(u32));
    if (larger == nullptr) return false;
    *index = static_cast<u32*>(larger);
    return true;
}

/// Room for one more record in the sort order and the filter.
bool growView(DbfBase* h) {
    return growIndex(&h->SortOrder, std::max(reccount(h), sortOrderCount(h))) &&
           growIndex(&h->FilterIndex, h->FilterCount);
}

/// Lets the record just written at physical number RecordCount join sort order and filter, in
/// which growView has made room.
void joinView(DbfBase* h) {
    const u32 count = reccount(h);
    if (h->SortOrder != nullptr) {
        // Records that have appeared after the sorted ones stand for themselves, as does this one.
        const u32 sorted = sortOrderCount(h);
        u32 place = sorted != 0 ? std::min(sorted, count) : count;
        for (; place <= count; ++place) h->SortOrder[place] = place;
        if (sorted != 0) setSortOrderCount(h, place);
    }
    if (h->FilterIndex != nullptr) h->FilterIndex[h->FilterCount++] = h->Header.RecordCount;
}

/// Writes RecordBuffer and the end-of-file byte, which does not count, in one.
bool writeWithEnd(DbfBase* h, u32 record) {
    const u32 length = h->Header.RecordLength;
    const Restore end(h->RecordBuffer[length],
                      kEndOfFile);  // in the bytes after the buffer at most
    return putTable(h, offsetOf(h, record), h->RecordBuffer, length + 1) >= length;
}

/// Writes RecordBuffer after the last record that is there once the hook, which may append others
/// or change the view, has run. The view has room for the record then.
bool writeLast(DbfBase* h) {
    const Restore physical(h->UseFilterIndex, u8{0}, u8{1});
    backUp(h);
    if (!isWithinReach(h, h->Header.RecordCount)) return false;
    if (h->BeforeWrite != nullptr) {
        h->BeforeWrite(h);
        if (isClosed(h) || !unchangedSize(h)) return false;
    }
    const u32 record = h->Header.RecordCount;
    if (!isWithinReach(h, record) || !growView(h)) return false;
    if (!mayWriteReferences(h, record, 0, h->Header.RecordLength)) return false;
    h->Modified = 1;
    return writeWithEnd(h, record);
}

/// The header with the day of today.
bool writeStamped(DbfBase* h) {
    StampHeader(&h->Header);
    u8 image[sizeof(DbfHeader)];
    encodeHeader(h->Header, image);
    const bool written = writeTable(h, 0, image, h->HeaderSize);
    h->Modified = 1;
    return written;
}

}  // namespace

int WriteRecord(DbfBase* h, u32 position) {
    return writeMapped(h, position, 0, h->BeforeWrite, h->RecordBuffer, h->Header.RecordLength);
}

int InternalWriteRecord(DbfBase* h, u32 record) {
    backUp(h);
    return writeAt(h, record, 0, h->BeforeWrite, h->RecordBuffer, h->Header.RecordLength);
}

int WriteByte(DbfBase* h, u32 position) {
    return writeMapped(h, position, 0, h->BeforeWriteByte, &h->DeleteFlag, 1);
}

int WriteField(DbfBase* h, u32 position, int field) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr || isClosed(h)) return 0;
    const std::span<u8> bytes = fieldBytes(h, field);
    return writeMapped(h, position, f->Offset, nullptr, bytes.data(),
                       static_cast<u32>(bytes.size()));
}

int WriteHeader(DbfBase* h) {
    if (isClosed(h)) return 0;
    const bool written = writeStamped(h);
    // The end-of-file byte does not count: readers go by the record count.
    writeTable(h, offsetOf(h, h->Header.RecordCount), &kEndOfFile, 1);
    return written ? 1 : 0;
}

int AppendBlank(DbfBase* h, char clear) {
    if (isClosed(h) || !unchangedSize(h)) return 0;
    if (clear != 0) ClearRecord(h);
    if (!growView(h) || !writeLast(h)) return 0;
    joinView(h);
    ++h->Header.RecordCount;
    return writeStamped(h) ? 1 : 0;
}

int DupRecord(DbfBase* h) {
    if (isClosed(h)) return 0;
    const u32 length = h->Header.RecordLength;
    if (h->SavedRecord == nullptr) h->SavedRecord = allocate<u8>(length).release();
    if (h->SavedRecord == nullptr) return 0;
    std::memcpy(h->SavedRecord, h->RecordBuffer, length);
    return 1;
}

void DupToRecord(DbfBase* h) {
    if (h->SavedRecord == nullptr) return;
    std::memcpy(h->RecordBuffer, h->SavedRecord, h->Header.RecordLength);
}

}  // namespace mira
