// A .cdx made anew for its table as it is now.
#pragma once

#include <string>

#include "tables/column/column.h"
#include "tables/index/index.h"

namespace mira::tables {

/// Why a file cannot be rebuilt, in words that follow its name: a tag that cannot be computed, keys
/// of another rule than this library's, another kind of file. Empty when it can. anyway overrides
/// keys that differ. Overwrites RecordBuffer; throws a Refusal for a damaged file.
std::string whyNotRebuilt(const Table& table, const IndexFile& file, bool anyway);

/// Writes the index anew into an empty file: its headers as they are but for the places of the
/// roots and the free list, its entries by the table's records. Overwrites RecordBuffer. Throws a
/// Refusal when the file cannot be written.
void writeIndex(const Table& table, const IndexFile& old, int descriptor);

}  // namespace mira::tables
