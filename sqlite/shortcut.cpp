#include "shortcut.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "table/text.h"

namespace mira::sql {
namespace {

/// Whole numbers up to here are exact in a double.
constexpr i64 kExact = i64{1} << 53;

bool isAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<u8>(c) < 0x80; });
}

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

/// The longest run of a pattern between its wildcards. A set of GLOB, from "[" on, ends the search.
void takePattern(Shortcut& s, std::string_view pattern) {
    const bool like = s.condition.op == Operator::Like;
    const std::string_view wildcards = like ? "%_" : "*?[";
    std::size_t start = 0;
    while (start <= pattern.size()) {
        const std::size_t end = std::min(pattern.find_first_of(wildcards, start), pattern.size());
        if (end - start > s.text.size()) {
            s.text = pattern.substr(start, end - start);
            s.atStart = start == 0;
        }
        if (end < pattern.size() && pattern[end] == '[') break;
        start = end + 1;
    }
    if (like) std::transform(s.text.begin(), s.text.end(), s.text.begin(), lower);
    s.usable = !s.text.empty();
}

std::string_view bytesOf(sqlite3_value* value) {
    const void* const bytes = sqlite3_value_text(value);
    if (bytes == nullptr) return {};
    return {static_cast<const char*>(bytes), static_cast<std::size_t>(sqlite3_value_bytes(value))};
}

/// Whether a value of the column's class can stand in the order with one of the constant's: numbers
/// with numbers, texts with texts. SQLite would convert the others first.
bool sameClass(int type, const char* declaredType) {
    const bool text = std::strcmp(declaredType, "TEXT") == 0;
    const bool number =
        std::strcmp(declaredType, "INTEGER") == 0 || std::strcmp(declaredType, "REAL") == 0;
    return type == SQLITE_TEXT ? text : (type == SQLITE_INTEGER || type == SQLITE_FLOAT) && number;
}

/// A text that SQLite takes for a number when the other side of the comparison is a column of
/// numbers; the order is then another one.
bool looksNumeric(std::string_view text) { return tool::isNumber(tool::trimmed(text)); }

/// Below zero, zero, above zero; false where doubles do not tell.
bool compareNumbers(const Shortcut& s, const Stored& value, int* order) {
    if (s.type == SQLITE_INTEGER && value.type == SQLITE_INTEGER) {
        *order = value.integer < s.integer ? -1 : value.integer > s.integer ? 1 : 0;
        return true;
    }
    const auto exact = [](i64 whole) { return whole > -kExact && whole < kExact; };
    if (s.type == SQLITE_INTEGER && !exact(s.integer)) return false;
    if (value.type == SQLITE_INTEGER && !exact(value.integer)) return false;
    const double left =
        value.type == SQLITE_INTEGER ? static_cast<double>(value.integer) : value.real;
    const double right = s.type == SQLITE_INTEGER ? static_cast<double>(s.integer) : s.real;
    if (std::isnan(left) || std::isnan(right)) return false;
    *order = left < right ? -1 : left > right ? 1 : 0;
    return true;
}

bool compare(const Shortcut& s, const Stored& value, int* order) {
    if (s.type != SQLITE_TEXT) {
        return (value.type == SQLITE_INTEGER || value.type == SQLITE_FLOAT) &&
               compareNumbers(s, value, order);
    }
    if (value.type != SQLITE_TEXT) return false;
    *order = value.bytes.compare(s.text);
    return true;
}

bool inOrder(Operator op, int order) {
    switch (op) {
        case Operator::Less:
            return order < 0;
        case Operator::LessEqual:
            return order <= 0;
        case Operator::Greater:
            return order > 0;
        case Operator::GreaterEqual:
            return order >= 0;
        default:
            return true;
    }
}

bool containsFolded(std::string_view text, std::string_view part) {
    const auto same = [](char a, char b) { return lower(a) == b; };
    return std::search(text.begin(), text.end(), part.begin(), part.end(), same) != text.end();
}

bool mayMatch(const Shortcut& s, const Stored& value) {
    // Letters above 7F may fold to anything.
    if (value.type != SQLITE_TEXT || !isAscii(value.bytes)) return true;
    std::string_view text = value.bytes;
    if (s.atStart) text = text.substr(0, s.text.size());
    return s.condition.op == Operator::Like ? containsFolded(text, s.text)
                                            : text.find(s.text) != std::string_view::npos;
}

}  // namespace

Shortcut shortcutOf(Condition condition, const char* declaredType, sqlite3_value* constant) {
    Shortcut s;
    s.condition = condition;
    if (condition.op == Operator::IsNull) {
        s.usable = true;
        return s;
    }
    s.type = sqlite3_value_type(constant);
    if (!sameClass(s.type, declaredType)) return s;
    if (s.type == SQLITE_INTEGER) s.integer = sqlite3_value_int64(constant);
    if (s.type == SQLITE_FLOAT) s.real = sqlite3_value_double(constant);
    if (condition.op == Operator::Like || condition.op == Operator::Glob) {
        if (s.type == SQLITE_TEXT && isAscii(bytesOf(constant))) takePattern(s, bytesOf(constant));
        return s;
    }
    if (s.type == SQLITE_TEXT) s.text = bytesOf(constant);
    s.usable = true;
    return s;
}

bool mayHold(const Shortcut& s, const Stored& value) {
    if (!s.usable) return true;
    const bool isNull = value.type == SQLITE_NULL;
    if (s.condition.op == Operator::IsNull) return isNull;
    if (isNull) return false;  // a comparison with null is never true
    if (s.condition.op == Operator::Like || s.condition.op == Operator::Glob) {
        return mayMatch(s, value);
    }
    int order = 0;
    if (!compare(s, value, &order)) return true;
    if (s.condition.op == Operator::Equal) return order == 0;
    return inOrder(s.condition.op, order) || (s.type == SQLITE_TEXT && looksNumeric(value.bytes));
}

}  // namespace mira::sql
