// Why a filter does not run, and what its conditions are, told by what set_filter makes of it.
#include <algorithm>
#include <iterator>
#include <new>
#include <optional>

#include "arithmetic.h"
#include "dbf/table/table.h"
#include "dbf/view/pieces.h"
#include "internal/ascii.h"

namespace mira {

namespace {

constexpr auto kNowhere = std::string_view::npos;

/// A part of the filter's text.
struct Range {
    std::size_t first = 0, end = 0;
};

struct Finding {
    FilterFault fault = FilterFault::None;
    Range at{};
};

std::string_view textAt(std::string_view text, Range at) {
    return text.substr(at.first, at.end - at.first);
}

/// Without the blanks around it.
Range trimmed(std::string_view text, Range at) {
    while (at.first < at.end && isSpace(text[at.first])) ++at.first;
    while (at.end > at.first && isSpace(text[at.end - 1])) --at.end;
    return at;
}

// --------------------------------------------------------------------------------------------
// Quotes and parentheses of the whole text
// --------------------------------------------------------------------------------------------

/// A connective or parenthesis, and the beginning of the quoted text in which it stands.
struct Sign {
    char c;
    std::size_t place;
    std::size_t quote;  ///< kNowhere outside quotes
};

struct Signs {
    std::vector<Sign> all;
    std::size_t unclosed = kNowhere;  ///< quote
};

bool isParenthesis(char c) { return c == '(' || c == ')'; }

Signs readSigns(std::string_view text) {
    Signs signs;
    QuoteReader quotes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (quotes.takes(text[i])) {
            signs.unclosed = quotes.inside() ? i : kNowhere;
        } else if (isConnective(text[i]) || isParenthesis(text[i])) {
            signs.all.push_back({text[i], i, signs.unclosed});
        }
    }
    return signs;
}

/// The parentheses that have to be paired: those in quotes only where they do not balance within
/// their condition, for only then they group.
std::vector<Sign> parenthesesOf(const std::vector<Sign>& signs) {
    std::vector<Sign> all;
    for (auto next = signs.begin(); next != signs.end();) {
        const auto end = std::find_if(next, signs.end(), [](Sign s) { return isConnective(s.c); });
        const auto opening = std::count_if(next, end, [](Sign s) { return s.c == '('; });
        const bool balanced = 2 * opening == end - next;
        std::copy_if(next, end, std::back_inserter(all),
                     [balanced](Sign s) { return !balanced || s.quote == kNowhere; });
        next = end != signs.end() ? end + 1 : end;
    }
    return all;
}

/// The place of a parenthesis without a partner.
std::size_t unpaired(const std::vector<Sign>& signs) {
    std::size_t depth = 0;
    std::size_t outermost = kNowhere;
    for (const Sign& sign : signs) {
        if (sign.c == ')' && depth-- == 0) return sign.place;
        if (sign.c == '(' && depth++ == 0) outermost = sign.place;
    }
    return depth != 0 ? outermost : kNowhere;
}

Finding findInQuotes(std::string_view text, const Signs& signs) {
    for (const Sign& sign : signs.all) {
        const bool quoted = sign.quote != kNowhere && sign.quote != signs.unclosed;
        if (quoted && isConnective(sign.c)) {
            return {FilterFault::ConnectiveInQuotes, {sign.place, sign.place + 1}};
        }
    }
    if (signs.unclosed == kNowhere) return {};
    return {FilterFault::Quotes, {signs.unclosed, text.size()}};
}

Finding findUnpaired(std::string_view text, const Signs& signs) {
    const std::vector<Sign> parentheses = parenthesesOf(signs.all);
    const std::size_t place = unpaired(parentheses);
    if (place == kNowhere) return {};
    for (const Sign& sign : parentheses) {
        if (sign.quote == kNowhere) continue;
        const std::size_t last = text.find(text[sign.quote], sign.quote + 1);
        return {FilterFault::Brackets, {sign.quote, last + 1}};
    }
    return {FilterFault::Brackets, {place, place + 1}};
}

// --------------------------------------------------------------------------------------------
// One condition
// --------------------------------------------------------------------------------------------

Range leftOf(std::string_view text, const FilterPiece& piece) {
    return trimmed(text, {piece.first, piece.first + piece.condition.sign});
}

/// The table field that a left side consists of; -1 for any other left side.
int onlyField(const Condition& c) {
    int field = -1;
    for (const ExpressionPart& part : c.left.parts) {
        if (part.field < 0) {
            const std::string& literal = part.literal;
            if (!std::all_of(literal.begin(), literal.end(), isSpace)) return -1;
        } else {
            if (field >= 0) return -1;
            field = part.field;
        }
    }
    return field;
}

/// The same, calculated fields included.
int leftField(DbfBase* h, const Condition& c, std::string_view left) {
    const int field = onlyField(c);
    return field >= 0 ? field : GetCalcI(h, std::string(left).c_str());
}

bool namesField(const Condition& c) {
    return std::any_of(c.left.parts.begin(), c.left.parts.end(),
                       [](const ExpressionPart& part) { return part.field >= 0; });
}

/// A text in quotes or a number.
bool isConstant(std::string_view text) {
    QuoteReader quotes;
    if (quotes.takes(text.front())) return true;
    std::string number(text);
    int status = 1;
    parse(number.data(), &status);
    return status != 0;
}

FilterFault leftFault(const Condition& c, std::string_view left) {
    if (c.op->first == 0) return FilterFault::ComposedLeft;  // no sign that compares
    if (onlyField(c) >= 0) return FilterFault::None;
    if (namesField(c) && !isOneWord(left)) return FilterFault::ComposedLeft;
    const bool constant = !left.empty() && isConstant(left);
    return constant ? FilterFault::None : FilterFault::UnknownField;
}

/// Whether a condition with its values is longer than a condition may be for every record.
bool isTooLong(const DbfBase* h, const Condition& c) {
    std::size_t length = operatorLength(*c.op);
    for (const Operand* side : {&c.left, &c.right}) {
        for (const ExpressionPart& part : side->parts) {
            length += part.literal.size();
            if (part.field < 0 || h->TrimMode != 0) continue;
            const DbfField& f = h->Fields[part.field];
            if (isText(f)) length += fieldLength(f);
        }
    }
    return length > kConditionLength;
}

Finding findInCondition(const DbfBase* h, std::string_view text, const FilterPiece& piece) {
    const Condition& c = piece.condition;
    const Range all = trimmed(text, {piece.first, piece.end});
    if (!hasOperator(c)) return {FilterFault::NoOperator, all};
    const Range left = leftOf(text, piece);
    const FilterFault fault = leftFault(c, textAt(text, left));
    if (fault == FilterFault::UnknownField) return {fault, left};
    if (fault != FilterFault::None) return {fault, all};
    if (isTooLong(h, c)) return {FilterFault::TooLong, all};
    return {};
}

// --------------------------------------------------------------------------------------------
// The filter
// --------------------------------------------------------------------------------------------

/// What stands between the conditions, where it does not compute.
Finding findBetween(std::string_view text, const std::vector<FilterPiece>& pieces) {
    std::string logic = logicOf(pieces);
    if (logic.size() > kParseLength) return {FilterFault::TooLong, {0, text.size()}};
    int status = 1;
    parse(logic.data(), &status);
    if (status != 0) return {};
    return {FilterFault::Brackets, {0, text.size()}};
}

bool readFilter(DbfBase* h, std::string_view text, std::vector<FilterPiece>* pieces) {
    std::vector<u32> cuts(kConnectives + 1);
    return readPieces(h, text, cuts.data(), pieces);
}

Finding findFault(DbfBase* h, std::string_view text) {
    const Signs signs = readSigns(text);
    Finding found = findInQuotes(text, signs);
    if (found.fault == FilterFault::None && h->NoBracketCheck == 0) {
        found = findUnpaired(text, signs);
    }
    if (found.fault != FilterFault::None) return found;
    std::vector<FilterPiece> pieces;
    if (!readFilter(h, text, &pieces)) return {FilterFault::TooLong, {0, text.size()}};
    for (const FilterPiece& piece : pieces) {
        found = findInCondition(h, text, piece);
        if (found.fault != FilterFault::None) return found;
    }
    return findBetween(text, pieces);
}

/// The text that set_filter would apply; null for none, and for what takes every record.
const char* appliedText(const DbfBase* h, const char* filter) {
    if (takesEvery(filter)) return nullptr;
    return filter != nullptr ? filter : h->FilterText;
}

}  // namespace

int CheckFilter(DbfBase* h, const char* filter, FilterFault* fault, u32* first, u32* end) {
    Finding found;
    try {
        const char* const text = appliedText(h, filter);
        if (text != nullptr) found = findFault(h, text);
        if (text == nullptr && !takesEvery(filter)) found.fault = FilterFault::NoOperator;
    } catch (const std::bad_alloc&) {
        found = {FilterFault::Memory};
    }
    *fault = found.fault;
    *first = static_cast<u32>(found.at.first);
    *end = static_cast<u32>(found.at.end);
    return found.fault == FilterFault::None ? 1 : 0;
}

int GetFilterCondition(DbfBase* h, const char* filter, u32 number, int* field, u32* signFirst,
                       u32* rightFirst, u32* end) {
    const char* const text = appliedText(h, filter);
    if (text == nullptr) return 0;
    try {
        std::vector<FilterPiece> pieces;
        if (!readFilter(h, text, &pieces) || number >= pieces.size()) return 0;
        const FilterPiece& piece = pieces[number];
        const Condition& c = piece.condition;
        *field = hasOperator(c) ? leftField(h, c, textAt(text, leftOf(text, piece))) : -1;
        *signFirst = static_cast<u32>(piece.first + c.sign);
        *rightFirst = static_cast<u32>(piece.first + c.rightFirst);
        *end = static_cast<u32>(piece.end);
        return 1;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

}  // namespace mira
