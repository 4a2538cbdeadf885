// A text looked for in every value of a record, letter case aside.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tables/column/column.h"
#include "tables/value/value.h"

namespace mira::page {

class Searcher {
public:
    Searcher(tables::Table& table, std::string_view text);

    /// Whether the record in RecordBuffer, whose number is given, holds the text in some value.
    bool find(u32 record);

private:
    bool holds(std::string_view utf8);
    bool holdsAscii(std::string_view text) const;

    tables::Table& table_;
    tables::CellReader cells_;
    std::u32string letters_;        ///< what is looked for, folded
    std::string ascii_;             ///< the same where it is ASCII
    std::vector<char32_t> folded_;  ///< of the letters below U+10000, once they are met
    std::u32string text_;
    std::string plain_;
};

}  // namespace mira::page
