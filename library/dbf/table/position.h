// From the caller's position to the physical record, and from a record to its file offset.
#pragma once

#include <optional>

#include "internal/file.h"
#include "mira.h"

namespace mira {

/// Sort order, then filter, for a position that counts from the start of the view. None for one
/// beyond the view while a sort order or a filter is in force.
inline std::optional<u32> recordFromStart(DbfBase* h, u32 position) {
    const bool filtered = h->FilterIndex != nullptr && h->UseFilterIndex != 0;
    if (h->SortOrder != nullptr || filtered) {
        if (position >= reccount(h)) return std::nullopt;
        position = GetOrder(h, position);
    }
    return filtered ? recno(h, position) : position;
}

/// Reverse, then sort order, then filter. None for a position beyond the view while one of them is
/// in force.
inline std::optional<u32> recordAt(DbfBase* h, u32 position) {
    if (h->Reverse != 0) {
        const u32 count = reccount(h);
        if (position >= count) return std::nullopt;
        position = count - 1 - position;
    }
    return recordFromStart(h, position);
}

/// File offset of a column (byte) of a physical record.
inline u64 offsetOf(const DbfBase* h, u32 record, u32 column = 0) {
    return Calc64(h->Header.RecordLength, record, u32{h->Header.HeaderLength} + column);
}

/// Whether a record can be written: a table ends, with its end-of-file byte, before 2^31 bytes.
inline bool isWithinReach(const DbfBase* h, u32 record) {
    return offsetOf(h, record) + h->Header.RecordLength < kReachable;
}

}  // namespace mira
