// What stands between the parentheses of USING mira(...): the path, then options.
#pragma once

#include <string>

#include "tables/column/column.h"

namespace mira::sql {

struct Arguments {
    std::string path;
    tables::TableOptions table;
    tables::Deleted deleted = tables::Deleted::Skip;
};

/// Throws a Refusal that names the path, for an option that nobody knows or that has no such value.
Arguments readArguments(int count, const char* const* texts);

}  // namespace mira::sql
