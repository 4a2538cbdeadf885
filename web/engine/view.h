// Which records the page shows, and in which order: a filter of the library, a text that is
// searched for, a sort.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tables/column/column.h"

namespace mira::page {

struct Wanted {
    std::string filter{};  ///< in UTF-8; empty for none
    std::string search{};  ///< looked for in every shown value, letter case aside
    int sort = -1;         ///< a column; -1: in the order of the file
    bool descending = false;
    tables::Deleted deleted = tables::Deleted::Include;
};

/// Records by the rows in which they are shown.
struct View {
    bool whole = true;           ///< all of the table, as they lie in the file
    u32 count = 0;               ///< rows
    std::vector<u32> records{};  ///< physical numbers from 0, unless whole
    u32 record(u32 row) const { return whole ? row : records[row]; }
};

/// Throws a Refusal. notes gets what is hardly meant as it stands in the filter.
View viewOf(tables::Table& table, const Wanted& wanted, std::vector<std::string>& notes);

/// Tells the page how much of a long work is done.
void tellProgress(u32 done, u32 all);

}  // namespace mira::page
