// UTF-8 texts: letter case and the like. Bytes that are no UTF-8 stand for themselves.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace mira::tool {

/// The text in the form in which texts that differ only in letter case are the same.
std::string foldCase(std::string_view utf8);
inline bool sameText(std::string_view a, std::string_view b) { return foldCase(a) == foldCase(b); }

bool isAscii(std::string_view text);
bool isUtf8(std::string_view text);

/// The parts of a list "A,B,C", blanks around them taken away; empty parts are left out.
std::vector<std::string> splitList(std::string_view list);
std::string_view trimmed(std::string_view text);

/// The name nearest to a mistyped one; empty when none is near.
std::string nearestName(std::string_view name, const std::vector<std::string>& names);

}  // namespace mira::tool
