// Filters as the user writes them, checked before they run: what would find nothing, or too much,
// by mistake is refused with a sentence that says what to do.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tables/column/column.h"
#include "tables/filter/condition.h"

namespace mira::tables {

/// A filter for the library, and what to do at each record before it is tested.
struct LibraryFilter {
    std::string text;
    std::vector<FieldTest> tests;
    std::vector<const Column*> compared;  ///< whose characters are compared
    std::vector<std::string> notes;       ///< what is hardly meant as it stands, in sentences
};

/// A filter in UTF-8 as the library takes it. Throws a Refusal.
LibraryFilter checkedFilter(const Table& table, std::string_view given);

/// Runs a checked filter over the records in view; with ignoreCase all letters of the code page are
/// folded. goesOn, where there is one, is asked after each record; a false ends the run early, with
/// a view that is no use. Overwrites RecordBuffer. Throws a Refusal.
void runFilter(Table& table, const LibraryFilter& filter, bool ignoreCase,
               const std::function<bool()>& goesOn = {});

/// Makes a range of records the view that filter and sort start from.
void viewRange(DbfBase* base, u32 first, u32 end);

}  // namespace mira::tables
