// Filters as the user writes them, checked before they run: what would find nothing by mistake is
// refused with a sentence that says what to do.
#pragma once

#include <string>
#include <string_view>

#include "tables.h"
#include "tables/column/column.h"

namespace mira::tool {

/// A filter in UTF-8 as the library takes it, literals after "==" padded to their C field. Throws
/// a Refusal.
std::string checkedFilter(const Table& table, std::string_view filter);

/// Runs a filter over the records in view; with ignoreCase all letters of the code page are folded.
/// Throws a Refusal, or Stopped.
void applyFilter(Table& table, std::string_view filter, bool ignoreCase);

}  // namespace mira::tool
