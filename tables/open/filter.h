// Filters as the user writes them, checked before they run: what would find nothing by mistake is
// refused with a sentence that says what to do.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tables/column/column.h"

namespace mira::tables {

/// A filter in UTF-8 as the library takes it, literals after "==" padded to their C field. What is
/// hardly meant as it stands is added to notes. Throws a Refusal.
std::string checkedFilter(const Table& table, std::string_view filter,
                          std::vector<std::string>* notes);

/// Makes a range of records the view that filter and sort start from.
void viewRange(DbfBase* base, u32 first, u32 end);

}  // namespace mira::tables
