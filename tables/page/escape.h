// Texts for terminals, which no control character reaches.
#pragma once

#include <string>
#include <string_view>

namespace mira::tables {

/// Control characters (below 20, 7F, 80 to 9F), bytes that are no UTF-8, two-way marks and the line
/// ends U+2028 and U+2029 as "\x1B" or "\u202E".
std::string escaped(std::string_view text);
/// Appends it.
void putEscaped(std::string& out, std::string_view text);
/// Whether escaping would change anything.
bool needsEscape(std::string_view text);

}  // namespace mira::tables
