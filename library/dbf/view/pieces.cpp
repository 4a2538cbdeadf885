// Taking the text of a filter apart.
#include "dbf/view/pieces.h"

#include <algorithm>

#include "internal/convert.h"

namespace mira {

namespace {

constexpr std::size_t kPieceLength = 1023;

/// The connective as arithmetic.
char connectiveSign(char c) { return c == '&' ? '*' : c == '|' ? '+' : c; }

i64 surplus(std::string_view text) {
    return std::count(text.begin(), text.end(), '(') - std::count(text.begin(), text.end(), ')');
}

/// The bracket from which on a text stays unbalanced.
std::size_t unbalancedFrom(std::string_view text, char opening, char closing) {
    std::size_t found = 0;
    i64 depth = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == closing && depth-- == 0) found = i;
        if (text[i] == opening) ++depth;
    }
    return found;
}

/// Characters up to the "(" before which a text stays unbalanced, seen from its end.
std::size_t unbalancedTo(std::string_view text) {
    const std::string backwards(text.rbegin(), text.rend());
    return text.size() - unbalancedFrom(backwards, ')', '(');
}

}  // namespace

bool isBalanced(const DbfBase* h, std::string_view text) {
    return h->NoBracketCheck != 0 || surplus(text) == 0;
}

u32 cutFilter(std::string_view text, u32* cuts) {
    u32 found = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (!isConnective(text[i])) continue;
        if (found == kConnectives) return 0;
        cuts[found++] = static_cast<u32>(i);
    }
    cuts[found] = static_cast<u32>(text.size());
    return found + 1;
}

/// A piece that closes or opens groups is cut where they begin or end.
FilterPiece preparePiece(DbfBase* h, std::string_view text, char connective) {
    const i64 open = h->NoBracketCheck != 0 ? 0 : surplus(text);
    const std::size_t start = open > 0 ? unbalancedTo(text) : 0;
    const std::size_t end = open < 0 ? unbalancedFrom(text, '(', ')') : text.size();
    FilterPiece piece{std::string(text.substr(0, start)),
                      prepareCondition(h, text.substr(start, end - start)),
                      std::string(text.substr(end)), start, end};
    if (connective != 0) piece.after += connectiveSign(connective);
    return piece;
}

bool readPieces(DbfBase* h, std::string_view text, u32* cuts, std::vector<FilterPiece>* pieces) {
    const u32 count = cutFilter(text, cuts);
    std::size_t start = 0;
    for (u32 k = 0; k < count; ++k) {
        const std::size_t length = cuts[k] - start;
        if (length > kPieceLength) return false;
        const char connective = cuts[k] < text.size() ? text[cuts[k]] : '\0';
        pieces->push_back(preparePiece(h, text.substr(start, length), connective));
        pieces->back().first += start;
        pieces->back().end += start;
        start = cuts[k] + 1;
    }
    return count != 0;
}

std::string logicOf(const std::vector<FilterPiece>& pieces) {
    std::string logic;
    for (const FilterPiece& piece : pieces) logic += piece.before + '1' + piece.after;
    return logic;
}

bool logicHolds(char* logic) {
    int status = 1;
    return clampToI32(parse(logic, &status)) != 0;
}

}  // namespace mira
