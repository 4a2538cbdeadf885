// What comes before the first write: may it be done, and copies of what is there.
#pragma once

#include <string>

#include "tables/column/column.h"

namespace mira::tables {

/// That index files are not kept up, where there are some; else empty.
std::string staleIndexes(const Table& table);
/// Throws a Refusal beside a ".shp" file, whose shapes go by record number; it ends with the way
/// out.
void refuseBesideShapes(const Table& table, const char* wayOut);

/// Throws a Refusal when the table, or the memo file that one of its fields needs, cannot be
/// written.
void checkWritable(const Table& table);
/// Copies the table to ".bak" and its memo file to ".tbk" beside it. An older copy stays until the
/// new one is whole. Throws a Refusal.
void makeBackups(const Table& table);

}  // namespace mira::tables
