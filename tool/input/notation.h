// How a file writes numbers and dates, where that is not as they are exported.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace mira::tool {

struct Notation {
    char decimal = '.';
    std::string dates;  ///< "DD.MM.YYYY" and the like; empty: as exported
};

/// Throws a Refusal for what is no decimal mark and no form of a date.
Notation notationOf(std::string_view decimal, std::string_view dates);

/// A number as it is exported: 1234.50 for 1.234,50; nothing when points and commas in it are not
/// where this notation has them. The result lies in the text or in scratch.
std::optional<std::string_view> plainNumber(const Notation&, std::string_view text,
                                            std::string& scratch);
/// A date, also one before a time, as it is exported: 2024-02-29. Everything else stays.
std::string_view plainDate(const Notation&, std::string_view text, std::string& scratch);

}  // namespace mira::tool
