// What stands between the parentheses of USING mira(...): the path, then options.
#pragma once

#include <string>

#include "table/table.h"

namespace mira::sql {

struct Arguments {
    std::string path;
    tool::TableOptions table;
    tool::Deleted deleted = tool::Deleted::Skip;
};

/// Throws a Refusal that names the path, for an option that nobody knows or that has no such value.
Arguments readArguments(int count, const char* const* texts);

}  // namespace mira::sql
