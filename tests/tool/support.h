// What the tests of the program share besides the tests' own support.
#pragma once

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string_view>
#include <tuple>
#include <utility>

#include "../support.h"

namespace test {

/// The parts of a list, for tables of texts.
inline std::vector<std::string> split(std::string_view list, char separator = ';') {
    std::vector<std::string> parts;
    std::istringstream in(std::string(list) + separator);
    for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
    return parts;
}

/// The rows of a table of texts "text=result;...", cut at their first equals sign.
inline std::vector<std::pair<std::string, std::string>> rows(std::string_view table) {
    std::vector<std::pair<std::string, std::string>> result;
    for (const std::string& row : split(table)) {
        const std::size_t equals = row.find('=');
        result.emplace_back(row.substr(0, equals), row.substr(equals + 1));
    }
    return result;
}

}  // namespace test
