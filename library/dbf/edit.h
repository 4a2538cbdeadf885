// What the structural edits share.
#pragma once

#include "mira.h"

namespace mira {

inline constexpr u8 kDeleted = '*';
inline constexpr u32 kTransferSize = 131072;  // bytes moved at a time

/// Whether positions go through a filter or a sort order.
inline bool hasView(const DbfBase* h) {
    return h->FilterIndex != nullptr || h->SortOrder != nullptr;
}

}  // namespace mira
