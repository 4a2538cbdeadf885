// Reading memos. One reader follows the rows of the family table. Lengths in block headers and
// references are untrusted: no more is allocated than the file holds.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "memo/memo.h"

namespace mira {

namespace {

// The first read of a block: prefix and data together, so that a small memo takes one.
constexpr u32 kFirstRead = 4096;

/// Data from an offset up to the end byte, at most limit bytes; at the end of the file none.
MemoRead readToEnd(int file, u64 offset, u32 limit, Owned<char>* memo, u32* length) {
    std::size_t capacity = kMemoTextMax;
    Owned<char> text = allocate<char>(capacity + 1);
    if (!text) return MemoRead::Failed;
    std::size_t used = 0;
    for (std::size_t want = kFirstRead; used < limit; want = capacity - used) {
        if (want == 0) {
            capacity = std::min<std::size_t>(2 * capacity, limit);
            char* larger = static_cast<char*>(std::realloc(text.get(), capacity + 1));
            if (larger == nullptr) return MemoRead::Failed;
            static_cast<void>(text.release());
            text.reset(larger);
            continue;
        }
        char* start = text.get() + used;
        u32 got = 0;
        if (!readPlaced(file, offset + used, start, static_cast<u32>(want), &got)) {
            return MemoRead::Failed;
        }
        const void* end = std::memchr(start, kMemoEnd, got);
        used +=
            end != nullptr ? static_cast<std::size_t>(static_cast<const char*>(end) - start) : got;
        if (end != nullptr || got < want) break;
    }
    text.get()[used] = 0;
    *length = static_cast<u32>(used);
    *memo = std::move(text);
    return MemoRead::Found;
}

/// Cuts a length to what the file holds from offset on.
bool capToFile(int file, u64 offset, u32* length) {
    const std::optional<u64> size = sizeOf(file);
    if (!size) return false;
    const u64 left = *size > offset ? *size - offset : 0;
    *length = static_cast<u32>(std::min({u64{*length}, left, u64{kMemoNoLimit}}));
    return true;
}

/// The memo whose block starts at offset.
MemoRead readBlock(int file, const MemoFamily& family, u64 offset, u32 length, Owned<char>* memo,
                   u32* lengthRead) {
    u8 start[kFirstRead];
    const u32 want = family.prefixSize != 0 ? kFirstRead : std::min(length, kFirstRead);
    u32 got = 0;
    if (!readPlaced(file, offset, start, want, &got)) return MemoRead::Failed;
    if (got < family.prefixSize) return MemoRead::None;
    if (family.prefixSize != 0) {
        const std::optional<u32> said = decodeMemoPrefix(family, start);
        if (!said) return MemoRead::None;
        length = *said;
    }

    const u32 have = std::min(length, got - family.prefixSize);
    u32 rest = got == want ? length - have : 0;
    if (rest != 0 && !capToFile(file, offset + got, &rest)) return MemoRead::Failed;
    Owned<char> data = allocate<char>(std::size_t{have} + rest + 1);
    if (!data) return MemoRead::Failed;
    std::memcpy(data.get(), start + family.prefixSize, have);
    u32 more = 0;
    if (rest != 0 && !readPlaced(file, offset + got, data.get() + have, rest, &more)) {
        return MemoRead::Failed;
    }
    *lengthRead = have + more;
    data.get()[*lengthRead] = 0;
    *memo = std::move(data);
    return MemoRead::Found;
}

/// A memo by the rules of one family.
char* getMemo(int file, const MemoHead& head, const MemoFamily& family, MemoReference reference,
              u32* length) {
    u32 unit = 0;
    u32 got = 0;
    Owned<char> memo;
    if (!readMemoUnit(head, family, &unit) && !family.shortHeaderReads) return nullptr;
    if (readMemo(file, family, unit, reference, kMemoTextMax, &memo, &got) != MemoRead::Found) {
        return nullptr;
    }
    if (length != nullptr) *length = got;
    return memo.release();
}

/// The same for a caller who has opened MemoFile himself.
char* getBlock(DbfBase* h, const MemoFamily& family, MemoReference reference, u32* length) {
    MemoHead head;
    return readMemoHead(h->MemoFile, &head)
               ? getMemo(fileno(h->MemoFile), head, family, reference, length)
               : nullptr;
}

char* getText(DbfBase* h, const MemoFamily& family, u32 block) {
    return getBlock(h, family, {block, 0}, nullptr);
}

u32 blockUnit(const MemoHead& head, const MemoFamily& family) {
    u32 unit = 0;
    readMemoUnit(head, family, &unit);  // has a value for a short header, too
    return unit;
}

u32 blockUnit(DbfBase* h, const MemoFamily& family) {
    MemoHead head;
    readMemoHead(h->MemoFile, &head);  // what cannot be read counts as missing
    return blockUnit(head, family);
}

/// The memo of a field, with the memo file open just for this.
char* getFieldMemo(DbfBase* h, const MemoFamily& family, MemoReference reference, u32* length) {
    const OpenMemoFile open(h);
    return open ? getMemo(open.descriptor(), open.head(), family, reference, length) : nullptr;
}

char* getFieldText(DbfBase* h, i32 field) {
    const MemoFamily* family = memoFamily(h->Header.Version);
    // An SMT memo is no text: its length stands in the reference only.
    if (family == nullptr || family == &kSmtMemo || if_memo_type(h, field) == 0) return nullptr;
    const MemoReference reference = memoReference(h, field);
    return reference.block != 0 ? getFieldMemo(h, *family, reference, nullptr) : nullptr;
}

char* getFieldBytes(DbfBase* h, i32 field, u32* length) {
    const MemoFamily* family = memoFamily(h->Header.Version);
    if (family == nullptr || if_memo_type(h, field) == 0) return nullptr;
    const MemoReference reference = memoReference(h, field);
    if (family == &kSmtMemo) {
        if (length != nullptr) *length = reference.length;
    } else if (reference.block == 0) {
        return nullptr;
    }
    char* memo = getFieldMemo(h, *family, reference, length);
    // A dBase III memo is text up to its first zero byte.
    if (memo != nullptr && family == &kDBase3Memo && length != nullptr) {
        *length = static_cast<u32>(std::strlen(memo));
    }
    return memo;
}

}  // namespace

std::optional<u32> decodeMemoPrefix(const MemoFamily& family, const u8* prefix) {
    const u32 stored = loadMemo32(family, prefix + sizeof family.mark);
    const bool marked = std::memcmp(prefix, family.mark, family.markChecked) == 0;
    if (!marked || stored < family.lengthBias) return std::nullopt;
    return stored - family.lengthBias;
}

bool readMemoUnit(const MemoHead& head, const MemoFamily& family, u32* unit) {
    const bool whole = family.unitPlace == 0 || head.size >= family.headerSize;
    *unit = whole ? memoUnit(family, head.bytes) : kMissingMemoUnit;
    return whole;
}

MemoRead readMemo(int file, const MemoFamily& family, u32 unit, MemoReference reference, u32 limit,
                  Owned<char>* memo, u32* length) {
    const u64 offset = u64{unit} * reference.block;
    if (unit == 0 || offset > kReachable) return MemoRead::None;
    return family.endSize != 0 ? readToEnd(file, offset, limit, memo, length)
                               : readBlock(file, family, offset, reference.length, memo, length);
}

OpenMemoFile::OpenMemoFile(DbfBase* h) {
    FileId id{};
    descriptor_ = openRegular(h->MemoFileName, O_RDWR, &id);
    if (descriptor_ < 0) descriptor_ = openRegular(h->MemoFileName, O_RDONLY, &id);
    if (descriptor_ < 0) return;
    const bool looked = readMemoHead(descriptor_, &head_);
    if (!looked || (head_.hasLog() && !isPacking(h)) || isTable(h, id)) shut();
}

void OpenMemoFile::shut() {
    if (descriptor_ >= 0) close(descriptor_);
    descriptor_ = -1;
}

u32 GetBlockSize(DbfBase* h) {
    const MemoFamily* family = memoFamily(h->Header.Version);
    if (family == nullptr) return 0;
    const OpenMemoFile open(h);
    return open ? blockUnit(open.head(), *family) : 0;
}

u32 dBase4_BlockSize(DbfBase* h) { return blockUnit(h, kDBase4Memo); }
u32 FoxPro_BlockSize(DbfBase* h) { return blockUnit(h, kFoxProMemo); }
u32 SMT_BlockSize(DbfBase* h) { return blockUnit(h, kSmtMemo); }

int SeekMemo(DbfBase* h, u32 unit, u32 block) {
    return seekTo(h->MemoFile, u64{unit} * block) ? 1 : 0;
}

int SeekMemoZero(DbfBase* h) { return seekTo(h->MemoFile, 0) ? 1 : 0; }

void FreeMemo(DbfBase* h) { replace(h->MemoBuffer); }

char* GetMemo(DbfBase* h, i32 field) {
    char* memo = getFieldText(h, field);
    FreeMemo(h);
    return memo;
}

char* GetMemoBuf(DbfBase* h, i32 field, u32* length) {
    char* memo = getFieldBytes(h, field, length);
    FreeMemo(h);
    return memo;
}

char* Get_dBase3(DbfBase* h, u32 block) { return getText(h, kDBase3Memo, block); }
char* Get_dBase4(DbfBase* h, u32 block) { return getText(h, kDBase4Memo, block); }
char* Get_FoxPro(DbfBase* h, u32 block) { return getText(h, kFoxProMemo, block); }
char* Get_SMT(DbfBase* /*h*/, u32 /*block*/) { return nullptr; }

char* Get_dBase4Buf(DbfBase* h, u32 block, u32* length) {
    return getBlock(h, kDBase4Memo, {block, 0}, length);
}

char* Get_FoxProBuf(DbfBase* h, u32 block, u32* length) {
    return getBlock(h, kFoxProMemo, {block, 0}, length);
}

char* Get_SMTBuf(DbfBase* h, u32 block, u32* length) {
    return getBlock(h, kSmtMemo, {block, length != nullptr ? *length : 0}, length);
}

}  // namespace mira
