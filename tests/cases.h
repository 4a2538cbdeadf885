// Tables of cases.
#pragma once

#include "support.h"

namespace test {

/// What stands between backquotes, with \xNN for any byte.
inline std::vector<std::string> columnsOf(std::string_view line) {
    std::vector<std::string> columns;
    bool inside = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '`') {
            inside = !inside;
            if (inside) columns.emplace_back();
        } else if (inside && line.substr(i, 2) == "\\x") {
            columns.back() +=
                static_cast<char>(std::stoi(std::string(line.substr(i + 2, 2)), nullptr, 16));
            i += 3;
        } else if (inside) {
            columns.back() += line[i];
        }
    }
    return columns;
}

/// The rows of tests/cases/NAME.txt; lines with "#" are comments.
inline std::vector<std::vector<std::string>> cases(const std::string& name) {
    std::vector<std::vector<std::string>> rows;
    const std::string text = readAll(MIRA_CASES_DIR "/" + name + ".txt");
    for (std::size_t at = 0, end = 0; at < text.size(); at = end + 1) {
        end = std::min(text.find('\n', at), text.size());
        if (text[at] != '#') rows.push_back(columnsOf(std::string_view(text).substr(at, end - at)));
    }
    if (rows.empty()) ADD_FAILURE() << "no cases in " << name;
    return rows;
}

/// Of a file with several tables the rows of one, without its name in front.
inline std::vector<std::vector<std::string>> cases(const std::string& name,
                                                   std::string_view table) {
    std::vector<std::vector<std::string>> rows = cases(name);
    std::erase_if(rows, [&](const auto& row) { return row.at(0) != table; });
    for (auto& row : rows) row.erase(row.begin());
    if (rows.empty()) ADD_FAILURE() << "no table " << table << " in " << name;
    return rows;
}

}  // namespace test
