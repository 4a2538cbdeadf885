// Filters that run.
#pragma once

#include <string_view>

#include "tables.h"
#include "tables/column/column.h"

namespace mira::tool {

/// Runs a filter over the records in view; with ignoreCase all letters of the code page are folded.
/// Throws a Refusal, or Stopped.
void applyFilter(Table& table, std::string_view filter, bool ignoreCase);

}  // namespace mira::tool
