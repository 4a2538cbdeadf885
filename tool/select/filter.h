// Filters as the user writes them, checked before they run: what would find nothing, or too much,
// by mistake is refused with a sentence that says what to do.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "select/condition.h"
#include "tables.h"
#include "tables/column/column.h"

namespace mira::tool {

/// A filter for the library, and what to do at each record before it is tested.
struct LibraryFilter {
    std::string text;
    std::vector<FieldTest> tests;
    std::vector<const Column*> compared;  ///< whose characters are compared
};

/// A filter in UTF-8 as the library takes it. Throws a Refusal.
LibraryFilter checkedFilter(const Table& table, std::string_view filter);

/// Runs a filter over the records in view; with ignoreCase all letters of the code page are folded.
/// Throws a Refusal, or Stopped.
void applyFilter(Table& table, std::string_view filter, bool ignoreCase);

}  // namespace mira::tool
