// From the caller's position to the physical record, and from a record to its file offset.
#pragma once

#include "internal/file.h"
#include "mira.h"

namespace mira {

/// Sort order, then filter, for a position that counts from the start of the view. False for one
/// beyond the view while a sort order or a filter is in force.
inline bool recordFromStart(DbfBase* h, u32 position, u32* record) {
    const bool filtered = h->FilterIndex != nullptr && h->UseFilterIndex != 0;
    if (h->SortOrder != nullptr || filtered) {
        if (position >= reccount(h)) return false;
        position = GetOrder(h, position);
    }
    *record = filtered ? recno(h, position) : position;
    return true;
}

/// Reverse, then sort order, then filter. False for a position beyond the view while one of them
/// is in force.
inline bool recordAt(DbfBase* h, u32 position, u32* record) {
    if (h->Reverse != 0) {
        const u32 count = reccount(h);
        if (position >= count) return false;
        position = count - 1 - position;
    }
    return recordFromStart(h, position, record);
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
