// Words of SQL and dBase that filters do not have, and would take for a part of a text.
#pragma once

#include <string_view>

#include "tables/column/column.h"

namespace mira::tables {

/// Throws a Refusal for .AND., .OR. and .NOT. outside quotes, and where it stands so that it can
/// only be an operator for AND, OR, NOT, LIKE, IN, BETWEEN, IS NULL and "!=".
void refuseForeignWords(const Table& table, std::string_view filter);

/// The filter cannot be run because of a part of it.
[[noreturn]] void refuseFilterPart(const Table& table, std::string_view part, std::string_view why);

}  // namespace mira::tables
