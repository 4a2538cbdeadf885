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

/// The place of the first end byte from an offset on, where the file stands; the end of the file
/// without one.
u64 findMemoEnd(std::FILE* file, u64 offset) {
    u8 chunk[kChunk];
    for (;;) {
        const u32 got = ReadFile(file, chunk, kChunk);
        const void* const mark = std::memchr(chunk, kMemoEnd, got);
        if (mark != nullptr) {
            return offset + static_cast<u64>(static_cast<const u8*>(mark) - chunk);
        }
        offset += got;
        if (got < kChunk) return offset;
    }
}

/// The span of the memo whose block starts at an offset, where the file stands.
std::optional<Span> spanAt(std::FILE* file, const MemoFamily& family, u64 offset, u32 length) {
    if (family.endSize != 0) return Span{offset, findMemoEnd(file, offset)};
    if (family.prefixSize != 0) {
        u8 prefix[kMemoPrefixSize];
        if (!readExact(file, prefix, sizeof prefix)) return std::nullopt;
        const std::optional<u32> said = decodeMemoPrefix(family, prefix);
        if (!said) return std::nullopt;
        length = *said;
    }
    const u64 first = offset + family.prefixSize;
    return Span{first, first + length};
}

/// Whole, cut, or 0 as GetMemoSpan has it.
int findSpan(std::FILE* file, const MemoFamily& family, MemoReference reference, Span* span) {
    u32 unit = 0;
    if (!seekTo(file, 0)) return 0;
    if (!readMemoUnit(file, family, &unit) && !family.shortHeaderReads) return 0;
    const u64 offset = u64{unit} * reference.block;
    const std::optional<u64> size = fileSize(file);
    if (unit == 0 || offset > kReachable || !size || !seekTo(file, offset)) return 0;
    if (family.endSize != 0 && offset >= *size) return 0;
    const std::optional<Span> found = spanAt(file, family, offset, reference.length);
    if (!found || std::ferror(file) != 0) return 0;
    *span = *found;
    return found->end <= *size ? kWhole : kCut;
}

}  // namespace

int GetMemoSpan(DbfBase* h, u32 block, u32 length, u64* first, u64* end) {
    *first = *end = 0;
    const Flavour& flavour = flavourOf(h->Header.Version);
    const MemoFamily* const family = memoFamily(h->Header.Version);
    const bool isReference = block != 0 || (flavour.lengthInReference && length != 0);
    if (family == nullptr || !isReference) return 0;
    std::optional<OpenMemoFile> open;
    if (h->MemoFile == nullptr) open.emplace(h);  // else the caller keeps it open
    if (h->MemoFile == nullptr) return 0;
    Span span;
    const int result = findSpan(h->MemoFile, *family, {block, length}, &span);
    *first = span.first;
    *end = span.end;
    return result;
}

}  // namespace mira
