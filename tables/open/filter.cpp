// How the library reads a filter, and what can go wrong unseen: every "&" and "|" connects, also in
// quotes; parentheses are counted in quotes, too; the operator is the first of > < = ~ ^ + - / * (
// ) outside quotes, so what stands left of it must be a bare name; a condition longer than 511
// characters with its values is false.
#include "tables/open/filter.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tables/open/open.h"
#include "tables/page/refusal.h"

namespace mira::tables {
namespace {

constexpr std::string_view kOperators = "><=~^+-/*()";
constexpr std::string_view kComparing = "><=~^";
constexpr std::size_t kConditionLength = 511;

template <typename... Part>
[[noreturn]] void refuseFilter(const Table& table, const Part&... why) {
    refuse(table.path, ": the filter cannot be run: ", why...);
}

/// One of its conditions cannot be run.
[[noreturn]] void refuseCondition(const Table& table, std::string_view condition,
                                  std::string_view why) {
    refuseFilter(table, '"', trimmed(condition), '"', why);
}

/// Walks over a text and knows what is in quotes.
struct QuoteScanner {
    char quote = 0;
    /// Whether the character is outside quotes, the quotes themselves not counted.
    bool outside(char c) {
        if (quote != 0) {
            if (c == quote) quote = 0;
            return false;
        }
        if (c != '"' && c != '\'') return true;
        quote = c;
        return false;
    }
};

void checkQuotesAndParentheses(const Table& table, std::string_view filter) {
    QuoteScanner scanner;
    int depth = 0;
    bool quotedParenthesis = false;
    for (const char c : filter) {
        const bool outside = scanner.outside(c);
        if (!outside && (c == '&' || c == '|')) {
            refuseFilter(table,
                         "\"&\" and \"|\" connect conditions inside quotes, too; try `mira query`");
        }
        if (c == '(') ++depth;
        if (c == ')') --depth;
        if (!outside && (c == '(' || c == ')')) quotedParenthesis = true;
        if (depth < 0) break;
    }
    if (scanner.quote != 0) refuseFilter(table, "a quote is not closed");
    if (depth != 0) {
        refuseFilter(
            table,
            quotedParenthesis
                ? "its parentheses do not match, and those in quotes count, too; try `mira query`"
                : "its parentheses do not match");
    }
}

/// A condition between the parentheses that group it.
struct Piece {
    std::string_view opening, condition, closing;
};

/// Parentheses that do not match inside the piece group several ones.
Piece cutPiece(std::string_view piece) {
    std::size_t first = 0;
    std::size_t last = piece.size();
    int depth = 0;
    for (std::size_t i = 0; i < piece.size(); ++i) {
        if (piece[i] == '(') ++depth;
        if (piece[i] == ')' && --depth < 0) {
            last = i;
            break;
        }
    }
    depth = 0;
    for (std::size_t i = last; i-- > 0;) {
        if (piece[i] == ')') ++depth;
        if (piece[i] == '(' && --depth < 0) {
            first = i + 1;
            break;
        }
    }
    return {piece.substr(0, first), piece.substr(first, last - first), piece.substr(last)};
}

std::size_t placeOf(std::string_view condition, std::string_view operators) {
    QuoteScanner scanner;
    for (std::size_t i = 0; i < condition.size(); ++i) {
        if (scanner.outside(condition[i]) &&
            operators.find(condition[i]) != std::string_view::npos) {
            return i;
        }
    }
    return std::string_view::npos;
}

/// Where the operator is; after a field name that holds such a character itself ("FIRST-NAME").
std::size_t operatorPlace(const Table& table, std::string_view condition) {
    const std::size_t comparing = placeOf(condition, kComparing);
    if (comparing != std::string_view::npos &&
        findColumn(table, condition.substr(0, comparing)) != nullptr) {
        return comparing;
    }
    return placeOf(condition, kOperators);
}

/// The column on the left of an operator.
const Column& leftColumn(const Table& table, std::string_view condition, std::size_t place) {
    const std::string_view left = trimmed(condition.substr(0, place));
    if (kComparing.find(condition[place]) == std::string_view::npos) {
        refuseCondition(table, condition,
                        ": left of the operator stands one bare field name, no computation, sign, "
                        "call or parenthesis");
    }
    if (left.empty()) {
        refuseCondition(table, condition, ": nothing stands left of the operator");
    }
    if (left.find_first_of("\"'") != std::string_view::npos) {
        refuseCondition(table, condition,
                        ": left of the operator stands a bare field name, no text");
    }
    const Column& column = columnNamed(table, left);
    if (column.kind == Kind::Calculated) {
        refuseFilter(table, column.name,
                     " is a calculated field; filters know those of the table only");
    }
    return column;
}

/// Bytes of a right side that is a literal, as they are compared; npos when it holds a field or a
/// call.
std::size_t literalLength(const Table& table, const std::string& translated) {
    QuoteScanner scanner;
    std::size_t length = 0;
    std::string plain;
    for (const char c : translated) {
        const bool wasQuoted = scanner.quote != 0;
        if (scanner.outside(c)) {
            if (c == '(') return std::string::npos;
            plain += c;
            ++length;
        } else {
            plain += ' ';
            if (wasQuoted && scanner.quote != 0) ++length;
        }
    }
    std::replace_if(
        plain.begin(), plain.end(),
        [](char c) { return kOperators.find(c) != std::string_view::npos; }, ' ');
    while (!plain.empty()) {
        const std::size_t blank = std::min(plain.find(' '), plain.size());
        const std::string word = plain.substr(0, blank);
        if (!word.empty() && GetFieldNum(table.base.get(), word.c_str()) < table.base->FieldCount) {
            return std::string::npos;
        }
        plain.erase(0, blank + 1);
    }
    return length;
}

/// Whether the library compares the stored characters.
bool isTextColumn(const Column& column) {
    return column.type == 'C' || column.type == 'V' || column.type == 'Q';
}

/// A blank left of the operator, or after one that does not search inside texts, is hardly meant.
void noteBlanks(const Column& column, std::string_view condition, std::size_t place,
                std::string_view right, std::vector<std::string>& notes) {
    constexpr std::string_view kSearching = "~^";
    if (!isTextColumn(column) && column.type != 'L' && column.type != 'D') return;
    const std::string_view left = condition.substr(0, place);
    const bool searching = kSearching.find(condition[place]) != std::string_view::npos;
    if (left == trimmed(left) && (searching || !right.starts_with(' '))) return;
    notes.push_back(textOf('"', trimmed(condition),
                           "\": blanks beside the operator belong to the compared texts"));
}

/// A date as it is shown, "2024-01-31", or a moment, as the library compares it: by its digits.
std::string plainMoment(const Column& column, std::string right) {
    constexpr std::string_view kShown = "dddd-dd-dd";
    const auto fits = [](char c, char pattern) {
        return pattern == 'd' ? isDigit(c) : c == pattern;
    };
    if (column.type != 'D' && column.type != 'T' && column.type != '@') return right;
    if (right.size() < kShown.size() ||
        !std::equal(kShown.begin(), kShown.end(), right.begin(),
                    [&](char pattern, char c) { return fits(c, pattern); })) {
        return right;
    }
    std::erase_if(right, [](char c) { return c == '-' || c == ':' || c == ' ' || c == 'T'; });
    return right;
}

std::string checkedCondition(const Table& table, std::string_view condition,
                             std::vector<std::string>& notes) {
    if (trimmed(condition).empty())
        refuseFilter(table, "there is no condition beside \"&\" or \"|\"");
    const std::size_t place = operatorPlace(table, condition);
    if (place == std::string_view::npos) {
        refuseCondition(table, condition, " has no operator, such as = <> < > ~");
    }
    const Column& column = leftColumn(table, condition, place);
    const bool exact = condition.substr(place, 2) == "==";
    const bool twoSigns = exact || (place + 1 < condition.size() &&
                                    placeOf(condition.substr(place + 1, 1), "<>=") == 0);
    const std::size_t after = place + (twoSigns ? 2 : 1);
    const std::string right = plainMoment(column, std::string(condition.substr(after)));
    noteBlanks(column, condition, place, right, notes);
    if (column.kind == Kind::Memo || column.kind == Kind::Blob) {
        notes.push_back(
            textOf("filters see of ", column.name,
                   " only \"Full memo\" or \"Empty memo\"; `mira query` looks into it"));
    }

    std::string translated = forLibrary(table, right);
    const std::size_t literal = literalLength(table, translated);
    if (exact && column.type == 'C' && literal != std::string::npos && literal < column.length) {
        translated.append(column.length - literal, ' ');
    }
    if (isTextColumn(column) && column.length + translated.size() + 2 > kConditionLength) {
        refuseFilter(table, "field ", column.name, " is too wide for a filter; try `mira query`");
    }
    const std::string_view left = condition.substr(0, place);
    return textOf(libraryName(table, column), left.substr(left.find_last_not_of(' ') + 1),
                  condition.substr(place, after - place), translated);
}

}  // namespace

std::string checkedFilter(const Table& table, std::string_view filter,
                          std::vector<std::string>* notes) {
    checkQuotesAndParentheses(table, filter);
    std::string checked;
    std::size_t start = 0;
    while (true) {
        const std::size_t end = std::min(filter.find_first_of("&|", start), filter.size());
        const Piece piece = cutPiece(filter.substr(start, end - start));
        checked += piece.opening;
        // Blanks beside a connective are no part of the texts, as they are for the library.
        std::string_view condition = piece.condition;
        const bool goesOn = end != filter.size() || !piece.closing.empty();
        while (goesOn && condition.ends_with(' ')) condition.remove_suffix(1);
        while (condition.starts_with(' ')) condition.remove_prefix(1);
        checked += checkedCondition(table, condition, *notes);
        checked += piece.closing;
        if (end == filter.size()) return checked;
        checked += filter[end];
        start = end + 1;
    }
}

void viewRange(DbfBase* base, u32 first, u32 end) {
    const u32 count = end - first;
    auto* const index = static_cast<u32*>(std::malloc((std::size_t{count} + 1) * sizeof(u32)));
    if (index == nullptr) throw std::bad_alloc();
    for (u32 i = 0; i < count; ++i) index[i] = first + i;
    std::free(base->FilterIndex);
    base->FilterIndex = index;
    base->FilterCount = count;
}

}  // namespace mira::tables
