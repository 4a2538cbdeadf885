// SQL over the tables that lie in the page's folder.
#pragma once

#include <string>
#include <vector>

namespace mira::page {

/// The answer of the last statement that has one. Rows are cells as putCell writes them.
struct Answer {
    std::vector<std::string> columns{};
    std::vector<bool> numbers{};  ///< whether a column holds nothing else
    std::vector<std::string> rows{};
    std::string csv{};  ///< the same as CSV
    bool cut = false;   ///< there were more
    std::vector<std::string> notes{};
};

struct SqlTable {
    std::string path;
    std::string codePage;  ///< empty: what the table says
};

/// Runs one statement or several. Throws a Refusal.
Answer answerOf(const std::string& sql, const std::vector<SqlTable>& tables);

}  // namespace mira::page
