// The words of SQL: enough of it to tell what a statement may name.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace mira::sql {

/// Names, keywords, numbers and texts, those in quotes without them; comments are left out.
std::vector<std::string> sqlWords(std::string_view sql);
/// Whether one of a few keywords, in capitals, is among them.
bool hasWord(const std::vector<std::string>& words, const std::vector<std::string>& keywords);

}  // namespace mira::sql
