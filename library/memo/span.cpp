// Where the data of a memo lies in the memo file, found without reading it.
#include <cstring>
#include <optional>

#include "memo/memo.h"

namespace mira {

namespace {

constexpr u32 kChunk = 16384;
constexpr int kWhole = 1;
constexpr int kCut = 2;

struct Span {
    u64 first = 0;
    u64 end = 0;  ///< as the memo says
};

/// The place of the first end byte from an offset on; the end of the file without one; nothing when
/// the file cannot be read.
std::optional<u64> findMemoEnd(int file, u64 offset) {
    u8 chunk[kChunk];
    for (;;) {
        u32 got = 0;
        if (!readPlaced(file, offset, chunk, kChunk, &got)) return std::nullopt;
        const void* const mark = std::memchr(chunk, kMemoEnd, got);
        if (mark != nullptr) {
            return offset + static_cast<u64>(static_cast<const u8*>(mark) - chunk);
        }
        offset += got;
        if (got < kChunk) return offset;
    }
}

/// The span of the memo whose block starts at an offset.
std::optional<Span> spanAt(int file, const MemoFamily& family, u64 offset, u32 length) {
    if (family.endSize != 0) {
        const std::optional<u64> end = findMemoEnd(file, offset);
        return end ? std::optional(Span{offset, *end}) : std::nullopt;
    }
    if (family.prefixSize != 0) {
        u8 prefix[kMemoPrefixSize];
        u32 got = 0;
        const bool read = readPlaced(file, offset, prefix, sizeof prefix, &got);
        if (!read || got < sizeof prefix) return std::nullopt;
        const std::optional<u32> said = decodeMemoPrefix(family, prefix);
        if (!said) return std::nullopt;
        length = *said;
    }
    const u64 first = offset + family.prefixSize;
    return Span{first, first + length};
}

/// Whole, cut, or 0 as GetMemoSpan has it.
int findSpan(int file, const MemoHead& head, const MemoFamily& family, MemoReference reference,
             Span* span) {
    u32 unit = 0;
    if (!readMemoUnit(head, family, &unit) && !family.shortHeaderReads) return 0;
    const u64 offset = u64{unit} * reference.block;
    const std::optional<u64> size = sizeOf(file);
    if (unit == 0 || offset > kReachable || !size) return 0;
    if (family.endSize != 0 && offset >= *size) return 0;
    const std::optional<Span> found = spanAt(file, family, offset, reference.length);
    if (!found) return 0;
    *span = *found;
    return found->end <= *size ? kWhole : kCut;
}

/// In a stream, or in the memo file opened for this.
int findSpan(DbfBase* h, std::FILE* memos, const MemoFamily& family, MemoReference reference,
             Span* span) {
    if (memos != nullptr) {
        MemoHead head;
        return readMemoHead(memos, &head) ? findSpan(fileno(memos), head, family, reference, span)
                                          : 0;
    }
    const OpenMemoFile open(h);
    return open ? findSpan(open.descriptor(), open.head(), family, reference, span) : 0;
}

}  // namespace

int GetMemoSpanIn(DbfBase* h, std::FILE* memos, u32 block, u32 length, u64* first, u64* end) {
    *first = *end = 0;
    const Flavour& flavour = flavourOf(h->Header.Version);
    const MemoFamily* const family = memoFamily(h->Header.Version);
    const bool isReference = block != 0 || (flavour.lengthInReference && length != 0);
    if (family == nullptr || !isReference) return 0;
    Span span;
    const int result = findSpan(h, memos, *family, {block, length}, &span);
    *first = span.first;
    *end = span.end;
    return result;
}

int GetMemoSpan(DbfBase* h, u32 block, u32 length, u64* first, u64* end) {
    return GetMemoSpanIn(h, h->MemoFile, block, length, first, end);
}

}  // namespace mira
