// What stands between the parentheses of USING mira(...): the path, then options.
#pragma once

#include <string>

#include "table/table.h"

namespace mira::sql {

enum class Deleted : u8 { Skip, Include, Only };

struct Arguments {
    std::string path;
    tool::TableOptions table;
    Deleted deleted = Deleted::Skip;
};

/// Throws a Refusal that names the path, for an option that nobody knows or that has no such value.
Arguments readArguments(int count, const char* const* texts);

/// A text in SQL.
std::string quotedText(std::string_view text);

}  // namespace mira::sql
