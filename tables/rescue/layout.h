// The header of a damaged table, as far as it can be told: where its descriptors lie, what they
// say, how long a record is and where the first one begins.
#pragma once

#include <string>
#include <vector>

#include "tables/column/column.h"
#include "tables/rescue/fit.h"
#include "tables/rescue/source.h"

namespace mira::tables {

struct Layout {
    std::string head{};                  ///< of the new table, up to record 0, with a count of 0
    Shape shape{};                       ///< of the damaged table's records
    u64 first = 0;                       ///< place of its first record
    u32 counted = 0;                     ///< records by its header, right or not
    bool doubtful = false;               ///< the fields, or where they begin, may be others
    std::vector<std::string> repairs{};  ///< a sentence each
};

/// By the table's own header. Throws a Refusal when its descriptors are lost.
Layout ownLayout(Source& source, const std::string& name);
/// For a table with the fields of another, which is open.
Layout layoutLike(Source& source, const Table& like);

}  // namespace mira::tables
