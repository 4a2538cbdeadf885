// Packing into new files: what is kept, and nothing else.
#pragma once

#include <functional>

#include "tables/change/swap.h"
#include "tables/column/column.h"

namespace mira::tables {

/// Which records a packed table has.
enum class Kept : u8 {
    Live,
    None  ///< a table without records
};

/// Finishes what an interrupted Pack of the library has left. Throws a Refusal.
void finishPack(Table& table);
/// Writes header, descriptors and back link of a table as they are, the records that are kept, and
/// their memos to the new files of a swap. A reference that leads to no memo becomes none. step is
/// called after every record and may throw. Throws a Refusal.
void packInto(Table& table, const Swap& swap, Kept kept, const std::function<void()>& step);

}  // namespace mira::tables
