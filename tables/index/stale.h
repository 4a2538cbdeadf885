// Index files that a change of their table has left behind.
#pragma once

#include <string>
#include <vector>

#include "tables/change/change.h"
#include "tables/column/column.h"

namespace mira::tables {

/// Which ones are out of date, and what helps, a sentence each: "stock.cdx is now out of date; run
/// `mira reindex stock`". None for files of which it can be told that the change has left all
/// keys as they were.
std::vector<std::string> staleIndexes(const Table& table, const Touched& touched);

}  // namespace mira::tables
