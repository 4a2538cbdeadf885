// The bounded view of a field in the record buffer: no decoder or encoder touches RecordBuffer
// in another way.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <span>
#include <string_view>

#include "dbf/table/types.h"
#include "mira.h"

namespace mira {

inline constexpr u32 kRecordBufferSize = 65535;
inline constexpr u32 kTextBufferSize = 65535;
/// Bytes allocated after both buffers, so that a decoder may take as many as its value has, and a
/// copy whole words, wherever a field ends. After the record they are zero.
inline constexpr u32 kBufferSlack = 16;

/// The table field of a number, null when there is none.
inline const DbfField* tableField(const DbfBase* h, int field) {
    return static_cast<unsigned>(field) < h->FieldCount ? &h->Fields[field] : nullptr;
}

/// Length and Decimals taken as one 16-bit number.
inline unsigned wideLength(const DbfField& f) { return f.Length + 256u * f.Decimals; }

/// Bytes the field occupies in the record.
inline unsigned fieldLength(const DbfField& f) { return f.Type == 'C' ? wideLength(f) : f.Length; }

/// A number with decimals and no room for a digit before them: .50 for 0.50.
inline bool hidesZero(const DbfField& f) { return f.Decimals != 0 && f.Length == f.Decimals + 1; }

/// Bytes of a memo reference that is no integer, and of one that is.
inline constexpr u32 kReferenceSize = 10;
inline constexpr u32 kIntegerReferenceSize = 4;

/// Whether the bytes of a field are a reference to a memo.
inline bool holdsReference(const DbfField& f) {
    const unsigned length = wideLength(f);
    switch (typeRow(f.Type).reference) {
        case ReferenceRule::Never:
            return false;
        case ReferenceRule::Always:
            return true;
        case ReferenceRule::AtLength10:
            return length == kReferenceSize;
        case ReferenceRule::AtLength4Or10:
            return length == kReferenceSize || length == kIntegerReferenceSize;
    }
    return false;
}

/// The field's bytes, cut at the end of the record buffer; empty for a number that names no field.
inline std::span<u8> fieldBytes(DbfBase* h, const DbfField& f) {
    const std::size_t room = kRecordBufferSize - f.Offset;
    return {h->RecordBuffer + f.Offset, std::min<std::size_t>(fieldLength(f), room)};
}
inline std::span<u8> fieldBytes(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    return f != nullptr ? fieldBytes(h, *f) : std::span<u8>{h->RecordBuffer, std::size_t{0}};
}

/// The same as characters.
template <typename Field>
std::string_view storedText(DbfBase* h, const Field& field) {
    const std::span<u8> bytes = fieldBytes(h, field);
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// N bytes from the field's place, whatever its length; zeros beyond the record buffer and for a
/// number that names no field.
template <std::size_t N>
std::array<u8, N> fieldPrefix(const DbfBase* h, int field) {
    static_assert(N <= kBufferSlack);
    std::array<u8, N> bytes{};
    if (const DbfField* f = tableField(h, field)) {
        std::memcpy(bytes.data(), h->RecordBuffer + f->Offset, N);
    }
    return bytes;
}

/// Where an encoder may store N bytes; null when the field is shorter, so that no neighbour is
/// overwritten.
template <std::size_t N>
u8* fieldRoom(DbfBase* h, int field) {
    const std::span<u8> bytes = fieldBytes(h, field);
    return bytes.size() >= N ? bytes.data() : nullptr;
}

}  // namespace mira
