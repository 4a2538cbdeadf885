// FIELD=VALUE, as set and add take it.
#pragma once

#include <string>
#include <vector>

#include "tables.h"
#include "tables/column/column.h"
#include "tables/store/store.h"

namespace mira::tool {

struct Assignment {
    const Column* column;
    Encoded value;
};

/// All of them, checked. Throws a Refusal, also for a field that is given twice.
std::vector<Assignment> assignmentsOf(Table& table, const std::vector<std::string>& texts,
                                      bool newRecord);

}  // namespace mira::tool
