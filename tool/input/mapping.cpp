#include "input/mapping.h"

#include <algorithm>

#include "tables/page/refusal.h"
#include "terminal/message.h"

namespace mira::tool {
namespace {

std::size_t columnOf(const Table& table, const std::string& heading) {
    const auto found = std::find_if(table.columns.begin(), table.columns.end(),
                                    [&](const Column& c) { return sameText(c.name, heading); });
    return static_cast<std::size_t>(found - table.columns.begin());
}

}  // namespace

Mapping mapColumns(const Table& table, const std::vector<std::string>& names,
                   const std::string& source, const char* what) {
    const std::size_t count = table.columns.size();
    Mapping mapping{std::vector<std::size_t>(count, kNoCell), kNoCell, names.size()};
    std::vector<std::string> strangers;
    std::vector<std::string> repeated;
    std::vector<std::string> missing;
    for (std::size_t i = 0; i < names.size(); ++i) {
        const std::size_t column = columnOf(table, names[i]);
        if (column < count && mapping.cells[column] == kNoCell) {
            mapping.cells[column] = i;
        } else if (column < count) {
            repeated.push_back('"' + names[i] + '"');
        } else if (names[i] == "_deleted") {
            mapping.deletion = i;
        } else if (names[i] != "_record") {
            strangers.push_back('"' + names[i] + '"');
        }
    }
    if (strangers.size() == names.size()) {
        refuse(source, ": no ", what, " is a field of ", table.path, ": ", joined(strangers));
    }
    for (std::size_t i = 0; i < count; ++i) {
        const bool left = mapping.cells[i] == kNoCell && !isCounting(table.columns[i]);
        if (left) missing.push_back(table.columns[i].name);
    }
    if (!strangers.empty()) note("{}: left out, no such field: {}", source, joined(strangers));
    if (!repeated.empty()) note("{}: left out, there before: {}", source, joined(repeated));
    if (!missing.empty()) note("{}: no {}, so blank: {}", source, what, joined(missing));
    return mapping;
}

}  // namespace mira::tool
