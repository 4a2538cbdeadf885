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

/// Calls take for every one of the records, of all there are, in the order of the file: whatever
/// reads them all then reads the file once.
template <typename Take>
void eachInFile(const std::vector<u32>& records, u32 all, Take take) {
    std::vector<bool> wanted(all);
    for (const u32 record : records) wanted[record] = true;
    for (u32 record = 0; record < all; ++record) {
        if (wanted[record]) take(record);
    }
}

/// Throws a Refusal. notes gets what is hardly meant as it stands in the filter.
View viewOf(tables::Table& table, const Wanted& wanted, std::vector<std::string>& notes);

/// Tells the page how much of a long work is done.
void tellProgress(u32 done, u32 all);

}  // namespace mira::page
