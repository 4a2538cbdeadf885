// Writing records and the header. Whatever a call reports as written has reached
// the operating system.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "dbf/table/position.h"
#include "dbf/table/table.h"
#include "internal/clock.h"
#include "internal/file.h"

namespace mira {

namespace {

constexpr u8 kEndOfFile = 0x1A;

/// The sequence all record writers share once the backup is made and the offset is known: a place
/// that cannot be reached stops it before the hook is called and Modified is set.
int writeAt(DbfBase* h, u64 offset, RecordHook hook, const void* bytes, u32 count) {
    if (!seekTo(h->TableFile, offset)) return 0;
    if (hook != nullptr) hook(h);
    h->Modified = 1;
    // The hook may have read other records, so the place is looked up anew after it.
    const bool written = hook != nullptr ? writeTable(h, offset, bytes, count)
                                         : writeTableHere(h, offset, bytes, count);
    return written ? 1 : 0;
}

/// writeAt for a column of the record that a position designates.
int writeMapped(DbfBase* h, u32 position, u32 column, RecordHook hook, const void* bytes,
                u32 count) {
    backUp(h);
    u32 record = 0;
    if (!recordAt(h, position, &record)) return 0;
    return writeAt(h, offsetOf(h, record, column), hook, bytes, count);
}

void stampDate(DbfHeader* header) {
    std::tm now;
    if (!localTime(std::time(nullptr), &now)) return;
    header->UpdateDay = static_cast<u8>(now.tm_mday);
    header->UpdateMonth = static_cast<u8>(now.tm_mon + 1);
    header->UpdateYear = static_cast<u8>(now.tm_year % 100);
}

/// Room for one more entry in a view's index; the old entries stay.
bool growIndex(u32** index, u32 count) {
    void* larger = std::realloc(*index, (std::size_t{count} + 1) * sizeof(u32));
    if (larger == nullptr) return false;
    *index = static_cast<u32*>(larger);
    return true;
}

/// Lets the record just written at physical number RecordCount join sort order and filter, in
/// which growIndex has made room.
void joinView(DbfBase* h) {
    const u32 count = reccount(h);
    if (h->SortOrder != nullptr) {
        // Records that have appeared behind the sorted ones stand for themselves, as does this one.
        u32 place = h->SortOrderCount != 0 ? std::min(h->SortOrderCount, count) : count;
        for (; place <= count; ++place) h->SortOrder[place] = place;
        if (h->SortOrderCount != 0) h->SortOrderCount = place;
    }
    if (h->FilterIndex != nullptr) h->FilterIndex[h->FilterCount++] = h->Header.RecordCount;
}

}  // namespace

int WriteRecord(DbfBase* h, u32 position) {
    return writeMapped(h, position, 0, h->BeforeWrite, h->RecordBuffer, h->Header.RecordLength);
}

int InternalWriteRecord(DbfBase* h, u32 record) {
    backUp(h);
    return writeAt(h, offsetOf(h, record), h->BeforeWrite, h->RecordBuffer, h->Header.RecordLength);
}

int WriteByte(DbfBase* h, u32 position) {
    return writeMapped(h, position, 0, h->BeforeWriteByte, &h->DeleteFlag, 1);
}

int WriteField(DbfBase* h, u32 position, int field) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr) return 0;
    const std::span<u8> bytes = fieldBytes(h, field);
    return writeMapped(h, position, f->Offset, nullptr, bytes.data(),
                       static_cast<u32>(bytes.size()));
}

int WriteHeader(DbfBase* h) {
    stampDate(&h->Header);
    u8 image[sizeof(DbfHeader)];
    encodeHeader(h->Header, image);
    const bool written = writeTable(h, 0, image, h->HeaderSize);
    // The end-of-file byte does not count: readers go by the record count.
    writeTable(h, offsetOf(h, h->Header.RecordCount), &kEndOfFile, 1);
    h->Modified = 1;
    return written ? 1 : 0;
}

int AppendBlank(DbfBase* h, char clear) {
    if (clear != 0) ClearRecord(h);
    const u32 count = reccount(h);
    if (h->SortOrder != nullptr && !growIndex(&h->SortOrder, count)) return 0;
    if (h->FilterIndex != nullptr && !growIndex(&h->FilterIndex, h->FilterCount)) return 0;
    h->UseFilterIndex = 0;
    const int written = InternalWriteRecord(h, h->Header.RecordCount);
    h->UseFilterIndex = 1;
    if (written == 0) return 0;
    joinView(h);
    ++h->Header.RecordCount;
    return WriteHeader(h);
}

int DupRecord(DbfBase* h) {
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
