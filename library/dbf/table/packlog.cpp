#include "dbf/table/packlog.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "dbf/table/movelog.h"
#include "dbf/table/position.h"

namespace mira {

namespace {

/// Whether a call has failed because there is no memo file, or something else in its place.
bool isNoFile(int error) {
    return error == ENOENT || error == ENOTDIR || error == EISDIR || error == ESPIPE ||
           error == ENXIO;
}

/// A reference of RecordBuffer that is about to be written and not blank.
bool isNewReference(DbfBase* h, int field, u32 column, u32 count) {
    const DbfField& f = h->Fields[field];
    const std::span<u8> bytes = fieldBytes(h, f);
    return f.Offset >= column && f.Offset + bytes.size() <= std::size_t{column} + count &&
           holdsReference(h, field) && !isBlankReference(h, f, bytes);
}

}  // namespace

bool readMemoHead(int descriptor, MemoHead* head) {
    const ssize_t got = pread(descriptor, head->bytes, kMemoHeadSize, 0);
    head->size = got > 0 ? static_cast<u32>(got) : 0;
    return got >= 0;
}

bool readMemoHead(std::FILE* file, MemoHead* head) {
    head->size = 0;
    return file != nullptr && readMemoHead(fileno(file), head);
}

bool holdsReference(DbfBase* h, int field) {
    const unsigned length = GetLenField(h, field);
    return if_memo_type(h, field) != 0 && (length == 4 || length == kReferenceSize);
}

bool isBlankReference(const DbfBase* h, const DbfField& field, std::span<const u8> bytes) {
    const bool digits = wideLength(field) != 4 && !flavourOf(h->Header.Version).lengthInReference;
    return std::all_of(bytes.begin(), bytes.end(), [digits](u8 byte) {
        return byte == 0 || (digits && (byte == ' ' || byte == '0'));
    });
}

bool mayWriteMemoFields(DbfBase* h, u32 record, u32 column, u32 count) {
    int field = h->FirstMemoField;
    while (field < h->FieldCount && !isNewReference(h, field, column, count)) ++field;
    if (field == h->FieldCount || hasMemoLog(h) == 0) return true;
    u32 got = 0;
    const Owned<u8> stored = allocate<u8>(count);
    if (!stored || !readTable(h, offsetOf(h, record, column), stored.get(), count, &got, true) ||
        got != count) {
        return false;
    }
    for (; field < h->FieldCount; ++field) {
        if (!isNewReference(h, field, column, count)) continue;
        const std::span<u8> bytes = fieldBytes(h, field);
        const u8* const there = stored.get() + (h->Fields[field].Offset - column);
        if (!std::equal(bytes.begin(), bytes.end(), there)) return false;
    }
    return true;
}

int hasMemoLog(DbfBase* h) {
    if (h->FirstMemoField == -1 || flavourOf(h->Header.Version).memos == MemoFormat::None) return 0;
    if (h->MemoFileName == nullptr) return -1;
    const int fd = open(h->MemoFileName, O_RDONLY | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) return isNoFile(errno) ? 0 : -1;
    MemoHead head;
    const bool looked = readMemoHead(fd, &head) || isNoFile(errno);
    close(fd);
    if (!looked) return -1;
    return head.hasLog() ? 1 : 0;
}

int IsPackUnfinished(DbfBase* h) {
    const int memos = hasMemoLog(h);
    if (memos != 0 || isClosed(h)) return memos;
    std::optional<MoveLog> log;
    const std::optional<u64> size = sizeOf(fileno(h->TableFile));
    if (!size) return -1;
    const bool holdsMore = recordsInFile(h, *size) > h->Header.RecordCount;
    return holdsMore && !findMoveLog(h, *size, &log) ? -1 : log ? 1 : 0;
}

}  // namespace mira
