// Which value of a source goes into which column of a table, by name.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tables.h"
#include "tables/column/column.h"

namespace mira::tool {

constexpr std::size_t kNoCell = static_cast<std::size_t>(-1);

/// Which cell goes into which column.
struct Mapping {
    std::vector<std::size_t> cells;  ///< one per column of the table; kNoCell: none
    std::size_t deletion = kNoCell;  ///< of "_deleted"
    std::size_t width = 0;           ///< cells of a row
};

/// Matches names of a source (which are called what: "heading", "field") and fields, and tells
/// those that have no counterpart. Throws a Refusal when none has.
Mapping mapColumns(const Table& table, const std::vector<std::string>& names,
                   const std::string& source, const char* what);

}  // namespace mira::tool
