// The words of filters and expressions: names of fields, functions, and texts without quotes.
#pragma once

#include <algorithm>
#include <string_view>

#include "tables/column/column.h"
#include "tables/page/text.h"

namespace mira::tables {

/// What the operators that filters compare by begin with.
inline std::string_view comparingSigns() { return GetFilterSigns(); }

/// Calls word(text, what follows) for every word outside quotes and other(c) for all else.
template <typename Word, typename Other>
void eachWord(std::string_view text, Word word, Other other) {
    char quote = 0;
    for (std::size_t i = 0; i < text.size();) {
        const char c = text[i];
        if (quote == 0 && isWordByte(c)) {
            const auto end = std::find_if_not(text.begin() + static_cast<std::ptrdiff_t>(i),
                                              text.end(), isWordByte);
            const auto stop = static_cast<std::size_t>(end - text.begin());
            word(text.substr(i, stop - i), text.substr(stop));
            i = stop;
            continue;
        }
        if (quote == c) {
            quote = 0;
        } else if (quote == 0 && (c == '"' || c == '\'')) {
            quote = c;
        }
        other(c);
        ++i;
    }
}

/// A column whose name is the word, no number.
const Column* columnOfWord(const Table& table, std::string_view word);

/// Whether a word and what follows begin a call of a function.
bool startsCall(std::string_view word, std::string_view rest);

/// Whether a text is arithmetic that can be computed when its columns hold numbers; without
/// anyColumn only those of numbers may be among them.
bool isComputable(const Table& table, std::string_view expression, bool anyColumn);

}  // namespace mira::tables
