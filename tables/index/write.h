// A .cdx made anew for its table as it is now.
#pragma once

#include <functional>

#include "tables/column/column.h"
#include "tables/index/index.h"

namespace mira::tables {

/// Writes the index anew into an empty file: its headers as they are but for the places of the
/// roots and the free list, its entries by the table's records. Overwrites RecordBuffer. step is
/// called after every record and may throw. Throws a Refusal when a tag cannot be computed or the
/// file cannot be written.
void writeIndex(const Table& table, const IndexFile& old, int descriptor,
                const std::function<void()>& step = {});

/// The same from the entries that the file holds, in their order. For tests: what is written has to
/// be read back as it was. filler as in eachEntry.
void rewriteIndex(const IndexFile& old, char filler, int descriptor);

}  // namespace mira::tables
