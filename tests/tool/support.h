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

/// The parts of a list.
inline std::vector<std::string> split(std::string_view list, char separator) {
    std::vector<std::string> parts;
    std::istringstream in(std::string(list) + separator);
    for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
    return parts;
}

}  // namespace test
