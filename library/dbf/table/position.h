// From the caller's position to the physical record, and from a record to its file offset.
#pragma once

#include "mira.h"

namespace mira {

/// Reverse, then sort order, then filter. False for a position beyond the view while one of them
/// is in force.
inline bool recordAt(DbfBase* h, u32 position, u32* record) {
    const bool filtered = h->FilterIndex != nullptr && h->UseFilterIndex != 0;
    if (h->Reverse != 0 || h->SortOrder != nullptr || filtered) {
        const u32 count = reccount(h);
        if (position >= count) return false;
        if (h->Reverse != 0) position = count - 1 - position;
        position = GetOrder(h, position);
    }
    *record = filtered ? recno(h, position) : position;
    return true;
}

/// File offset of a column (byte) of a physical record.
inline u64 offsetOf(const DbfBase* h, u32 record, u32 column = 0) {
    return Calc64(h->Header.RecordLength, record, u32{h->Header.HeaderLength} + column);
}

}  // namespace mira
