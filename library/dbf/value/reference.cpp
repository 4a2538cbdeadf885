// Memo references: what a memo field holds.
//
//   table   field        content
//   SMT     10 bytes     0  2  zero
//                        2  4  bytes of the memo, little-endian
//                        6  4  block, little-endian
//   others  4 bytes      block as an integer field holds it
//   others  else         block as right-aligned decimal digits
//
// Block 0 means no memo; in SMT tables ten zero bytes do.
#include "dbf/value/reference.h"

#include <charconv>
#include <cstring>
#include <optional>
#include <string_view>

#include "dbf/table/table.h"
#include "internal/bytes.h"
#include "internal/convert.h"

namespace mira {
namespace {

constexpr u32 kMemoLengthPlace = 2;
constexpr u32 kBlockPlace = 6;
constexpr u32 kNoBlock = 0xFFFFFFFF;  // of bytes that are no reference

bool isBinary(const DbfBase* h) { return flavourOf(h->Header.Version).lengthInReference; }

bool isInteger(const DbfBase* h, int field) {
    return wideLength(h->Fields[field]) == kIntegerReferenceSize;
}

/// A blank field holds zeros, which are the least number where integers have a sign in level 7.
u32 integerBlock(DbfBase* h, int field) {
    const bool isBlank =
        fieldPrefix<kIntegerReferenceSize>(h, field) == std::array<u8, kIntegerReferenceSize>{};
    return isBlank ? 0 : GetInt(h, field);
}

/// The number that digits between blanks or zero bytes stand for; 0 for blanks alone.
std::optional<u32> exactBlock(std::string_view text) {
    constexpr std::string_view padding(" \0", 2);
    const std::size_t first = text.find_first_not_of(padding);
    if (first == std::string_view::npos) return 0;
    const char* const end = text.data() + text.find_last_not_of(padding) + 1;
    u32 block = 0;
    const auto [next, error] = std::from_chars(text.data() + first, end, block);
    return error == std::errc() && next == end ? std::optional(block) : std::nullopt;
}

/// The same as memoReference; none for bytes that are no reference, where that makes the best of
/// them.
std::optional<MemoReference> exactReference(DbfBase* h, int field) {
    if (isBinary(h) ? hasRoomForReference(h, field) : isInteger(h, field)) {
        return memoReference(h, field);
    }
    const std::optional<u32> block =
        isBinary(h) ? std::nullopt : exactBlock(storedText(h, h->Fields[field]));
    return block ? std::optional(MemoReference{*block, 0, *block == 0}) : std::nullopt;
}

}  // namespace

MemoReference memoReference(DbfBase* h, int field) {
    if (isBinary(h)) {
        const auto bytes = fieldPrefix<kReferenceSize>(h, field);
        return {loadLe32(&bytes[kBlockPlace]), loadLe32(&bytes[kMemoLengthPlace]),
                bytes == std::array<u8, kReferenceSize>{}};
    }
    const u32 block = isInteger(h, field) ? integerBlock(h, field)
                                          : static_cast<u32>(clampToI32(GetNumeric(h, field)));
    return {block, 0, block == 0};
}

int GetMemoReference(DbfBase* h, int field, u32* block, u32* length) {
    *block = *length = 0;
    const DbfField* f = tableField(h, field);
    if (f == nullptr || !holdsReference(*f)) return 0;
    const std::optional<MemoReference> reference = exactReference(h, field);
    *block = reference ? reference->block : kNoBlock;
    if (!reference || reference->isBlank) return 0;
    *length = reference->length;
    return 1;
}

bool hasRoomForReference(DbfBase* h, int field) {
    return !isBinary(h) || fieldRoom<kReferenceSize>(h, field) != nullptr;
}

void setMemoReference(DbfBase* h, int field, MemoReference reference) {
    if (isBinary(h)) {
        u8* to = fieldRoom<kReferenceSize>(h, field);
        if (to == nullptr) return;
        std::memset(to, 0, kMemoLengthPlace);
        storeLe32(to + kMemoLengthPlace, reference.length);
        storeLe32(to + kBlockPlace, reference.block);
    } else if (isInteger(h, field)) {
        SetInt(h, field, reference.block);
    } else {
        SetNumeric(h, field, static_cast<i32>(reference.block));
    }
}

int SetMemoReference(DbfBase* h, int field, u32 block, u32 length) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr || !holdsReference(*f) || !hasRoomForReference(h, field)) return 0;
    setMemoReference(h, field, {block, length});
    const std::optional<MemoReference> stored = exactReference(h, field);
    return stored && stored->block == block ? 1 : 0;
}

}  // namespace mira
