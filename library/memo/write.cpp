// Appending memos. One writer follows the rows of the family table: data goes to the next free
// block, then the counter in the header moves on. Until it has moved nothing counts as stored.
#include <cstring>

#include "memo/memo.h"

namespace mira {

namespace {

// Memos up to this size go out with prefix and end byte in one write.
constexpr u32 kOneWrite = 4096;

/// Where a memo goes.
struct Place {
    u32 block;
    u32 next;  ///< counter after it
    u64 offset;
};

/// False when the header is short, or leads to a place where no memo may be: the header itself, or
/// beyond what a memo file can hold.
bool findPlace(const MemoHead& head, const MemoFamily& family, u64 size, Place* place) {
    if (head.size < family.headerSize) return false;
    const u32 unit = memoUnit(family, head.bytes);
    if (unit == 0) return false;
    place->block = loadMemo32(family, head.bytes);
    place->offset = u64{unit} * place->block;
    if (place->offset < family.headerSize || place->offset + size > kReachable) return false;
    place->next = place->block + static_cast<u32>((size + unit - 1) / unit);
    return true;
}

bool writeData(int file, u64 offset, const MemoFamily& family, const char* bytes, u32 length) {
    u8 image[kMemoPrefixSize + kOneWrite + 1];
    const bool together = length <= kOneWrite;
    u32 used = encodeMemoPrefix(family, length, image);
    if (together) {
        if (length != 0) std::memcpy(image + used, bytes, length);
        used += length;
    } else {
        if (!writePlaced(file, offset, image, used) ||
            !writePlaced(file, offset + used, bytes, length)) {
            return false;
        }
        offset += u64{used} + length;
        used = 0;
    }
    if (family.endSize != 0) image[used++] = kMemoEnd;
    return writePlaced(file, offset, image, used);
}

bool writeCounter(int file, const MemoFamily& family, u32 next) {
    u8 counter[sizeof next];
    storeMemo32(family, counter, next);
    return writePlaced(file, 0, counter, sizeof counter);
}

/// Length of a text; 0, which stores nothing, for one that no memo file can hold.
u32 textLength(const char* text) {
    const std::size_t length = text != nullptr ? std::strlen(text) : 0;
    return length <= kReachable ? static_cast<u32>(length) : 0;
}

/// To a file that the caller has opened.
u32 appendBlock(std::FILE* memos, const MemoFamily& family, const char* bytes, u32 length) {
    MemoHead head;
    return readMemoHead(memos, &head) ? appendMemo(fileno(memos), head, family, bytes, length) : 0;
}

}  // namespace

u32 encodeMemoPrefix(const MemoFamily& family, u32 length, u8* to) {
    if (family.prefixSize == 0) return 0;
    std::memcpy(to, family.mark, sizeof family.mark);
    storeMemo32(family, to + sizeof family.mark, length + family.lengthBias);
    return family.prefixSize;
}

u32 appendMemo(int file, const MemoHead& head, const MemoFamily& family, const char* bytes,
               u32 length) {
    if (bytes == nullptr && length != 0) return 0;
    const u64 size = u64{family.prefixSize} + length + family.endSize;
    Place place;
    if (!findPlace(head, family, size, &place) ||
        !writeData(file, place.offset, family, bytes, length) ||
        !writeCounter(file, family, place.next)) {
        return 0;
    }
    return place.block;
}

int SetMemoBuf(DbfBase* h, u32 field, const char* bytes, u32 length) {
    const auto number = static_cast<int>(field);
    const MemoFamily* family = memoFamily(h->Header.Version);
    if (family == nullptr || bytes == nullptr || length == 0) return 0;
    if (if_memo_type(h, number) == 0 || !hasRoomForReference(h, number)) return 0;
    const OpenMemoFile open(h);
    const u32 block = open ? appendMemo(open.descriptor(), open.head(), *family, bytes, length) : 0;
    if (block == 0) return 0;
    setMemoReference(h, number, {block, length});
    return 1;
}

int SetMemo(DbfBase* h, u32 field, const char* text) {
    return SetMemoBuf(h, field, text, textLength(text));
}

u32 AppendMemo(DbfBase* h, std::FILE* memos, const char* bytes, u32 length) {
    const MemoFamily* const family = memoFamily(h->Header.Version);
    return family != nullptr && memos != nullptr ? appendBlock(memos, *family, bytes, length) : 0;
}

u32 Set_dBase3Buf(DbfBase* h, const char* bytes, u32 length) {
    return appendBlock(h->MemoFile, kDBase3Memo, bytes, length);
}

u32 Set_dBase4Buf(DbfBase* h, const char* bytes, u32 length) {
    return appendBlock(h->MemoFile, kDBase4Memo, bytes, length);
}

u32 Set_FoxProBuf(DbfBase* h, const char* bytes, u32 length) {
    return appendBlock(h->MemoFile, kFoxProMemo, bytes, length);
}

u32 Set_SMTBuf(DbfBase* h, const char* bytes, u32 length) {
    return appendBlock(h->MemoFile, kSmtMemo, bytes, length);
}

u32 Set_dBase3(DbfBase* h, const char* text) { return Set_dBase3Buf(h, text, textLength(text)); }
u32 Set_dBase4(DbfBase* h, const char* text) { return Set_dBase4Buf(h, text, textLength(text)); }
u32 Set_FoxPro(DbfBase* h, const char* text) { return Set_FoxProBuf(h, text, textLength(text)); }
u32 Set_SMT(DbfBase* h, const char* text) { return Set_SMTBuf(h, text, textLength(text)); }

}  // namespace mira
