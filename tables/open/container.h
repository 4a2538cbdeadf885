// Long field names from the database container (".dbc") that a table's back link names.
#pragma once

#include <string>
#include <vector>

#include "tables/column/column.h"
#include "tables/open/find.h"

namespace mira::tables {

/// The container's path by the back link; empty when the table has none.
std::string backLinkOf(const Table& table, Listing* listing);

/// The names of the table's fields in the container, in field order, in UTF-8. Throws a Refusal
/// when there is no container, or none of its tables has this one's name.
std::vector<std::string> longNamesOf(const Table& table, Listing* listing);

}  // namespace mira::tables
