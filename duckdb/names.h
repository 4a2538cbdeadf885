// Which tables a path names.
#pragma once

#include <string>
#include <vector>

namespace mira::duck {

/// The tables of a path: a table, a folder for its "*.dbf", or a pattern of "*", "?", "[...]" and
/// "**" for folders at any depth, the extension in any letter case; in order. A table that is not
/// there stays, so that opening it says why. Throws a Refusal where a folder or pattern has none.
std::vector<std::string> tablesNamed(const std::string& path);
/// Of several paths, one after the other.
std::vector<std::string> tablesNamed(const std::vector<std::string>& paths);

}  // namespace mira::duck
