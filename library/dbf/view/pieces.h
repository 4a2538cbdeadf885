// A filter's text taken apart, as the filter files share it.
//
//   filter  condition { ("&" | "|") condition }     "&" binds tighter; parentheses group
//
// Every "&" and "|" is a connective, also inside quotes. A record is tested by writing the result
// of every condition as 1 or 0, "&" as "*" and "|" as "+" between the grouping parentheses, and by
// computing that arithmetic text: A=1&(B=2|C=3) becomes 1*(0+1). The record passes when the value,
// truncated, is not 0.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "dbf/view/condition.h"

namespace mira {

/// A piece between connectives.
struct FilterPiece {
    std::string before;  ///< parentheses that open groups
    Condition condition;
    std::string after;               ///< parentheses that close groups, and the connective
    std::size_t first = 0, end = 0;  ///< of the condition in the filter's text
};

/// Stands for a filter that every record satisfies.
inline bool takesEvery(const char* text) { return reinterpret_cast<std::intptr_t>(text) == -1; }

inline bool isConnective(char c) { return c == '&' || c == '|'; }
/// False where parentheses do not balance and have to.
bool isBalanced(const DbfBase*, std::string_view text);

inline constexpr std::size_t kConnectives = 1023;  // as many as Cuts holds, and the length

/// Records in cuts, which has room for one more than kConnectives, where the connectives stand, and
/// the length after them. The number of pieces; 0 when there are too many.
u32 cutFilter(std::string_view text, u32* cuts);
/// Takes one piece apart; its first and end count in text. connective 0 for the last one.
FilterPiece preparePiece(DbfBase*, std::string_view text, char connective);
/// Takes all of a text apart. False when a piece or the number of connectives is too large.
bool readPieces(DbfBase*, std::string_view text, u32* cuts, std::vector<FilterPiece>*);
/// The arithmetic text, a 1 for every condition.
std::string logicOf(const std::vector<FilterPiece>&);
/// The value of an arithmetic text; false when it fails.
bool logicHolds(char* logic);

}  // namespace mira
