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

#include <cstring>

#include "dbf/table/table.h"
#include "internal/bytes.h"
#include "internal/convert.h"

namespace mira {
namespace {

constexpr u32 kMemoLengthPlace = 2;
constexpr u32 kBlockPlace = 6;

bool isBinary(const DbfBase* h) { return flavourOf(h->Header.Version).lengthInReference; }

bool isInteger(const DbfBase* h, int field) { return wideLength(h->Fields[field]) == 4; }

}  // namespace

MemoReference memoReference(DbfBase* h, int field) {
    if (isBinary(h)) {
        const auto bytes = fieldPrefix<kReferenceSize>(h, field);
        return {loadLe32(&bytes[kBlockPlace]), loadLe32(&bytes[kMemoLengthPlace]),
                bytes == std::array<u8, kReferenceSize>{}};
    }
    const u32 block =
        isInteger(h, field) ? GetInt(h, field) : static_cast<u32>(clampToI32(GetNumeric(h, field)));
    return {block, 0, block == 0};
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

}  // namespace mira
