#include "shortcut.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "tables/page/text.h"

namespace mira::sql {
namespace {

/// Whole numbers up to here are exact in a double.
constexpr i64 kExact = i64{1} << 53;

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

bool isNumber(Storage storage) { return storage == Storage::Integer || storage == Storage::Real; }

/// Whether values of the two classes stand in one order: numbers with numbers, texts with texts.
/// SQLite would convert all others first.
bool sameClass(Storage a, Storage b) {
    return (isNumber(a) && isNumber(b)) || (a == Storage::Text && b == Storage::Text);
}

/// A text that SQLite takes for a number when the other side of the comparison is a column of
/// numbers; the order is then another one.
bool looksNumeric(std::string_view text) { return tables::isNumber(tables::trimmed(text)); }

double asDouble(const Stored& value) {
    return value.storage == Storage::Integer ? static_cast<double>(value.integer) : value.real;
}

/// Whether a double says all of it.
bool isExact(const Stored& value) {
    return value.storage == Storage::Integer ? value.integer > -kExact && value.integer < kExact
                                             : !std::isnan(value.real);
}

bool inOrder(Operator op, std::partial_ordering order) {
    switch (op) {
        case Operator::Less:
            return order < 0;
        case Operator::LessEqual:
            return order <= 0;
        case Operator::Greater:
            return order > 0;
        case Operator::GreaterEqual:
            return order >= 0;
        case Operator::Equal:
        case Operator::IsNull:
        case Operator::Like:
        case Operator::Glob:
            return true;
    }
    return true;
}

bool containsFolded(std::string_view text, std::string_view part) {
    const auto same = [](char a, char b) { return lower(a) == b; };
    return std::search(text.begin(), text.end(), part.begin(), part.end(), same) != text.end();
}

bool mayMatch(const Shortcut& s, const Stored& value) {
    // Letters above 7F may fold to anything.
    if (value.storage != Storage::Text || !tables::isAscii(value.bytes)) return true;
    std::string_view text = value.bytes;
    if (s.atStart) text = text.substr(0, s.text.size());
    return s.condition.op == Operator::Like ? containsFolded(text, s.text)
                                            : text.find(s.text) != std::string_view::npos;
}

}  // namespace

Stored storedOf(sqlite3_value* value) {
    const auto bytesOf = [&](const void* bytes) {
        const auto size = static_cast<std::size_t>(sqlite3_value_bytes(value));
        return bytes == nullptr ? std::string_view("")
                                : std::string_view(static_cast<const char*>(bytes), size);
    };
    switch (sqlite3_value_type(value)) {
        case SQLITE_INTEGER:
            return {Storage::Integer, sqlite3_value_int64(value), 0, {}};
        case SQLITE_FLOAT:
            return {Storage::Real, 0, sqlite3_value_double(value), {}};
        case SQLITE_TEXT:
            // As UTF-8, whatever the database holds.
            return {Storage::Text, 0, 0, bytesOf(sqlite3_value_text(value))};
        case SQLITE_BLOB:
            return {Storage::Blob, 0, 0, bytesOf(sqlite3_value_blob(value))};
        default:
            return {};
    }
}

std::partial_ordering compare(const Stored& a, const Stored& b) {
    if (!sameClass(a.storage, b.storage)) return std::partial_ordering::unordered;
    if (a.storage == Storage::Text) return a.bytes <=> b.bytes;
    if (a.storage == Storage::Integer && b.storage == Storage::Integer) {
        return a.integer <=> b.integer;
    }
    if (a.storage != b.storage && (!isExact(a) || !isExact(b))) {
        return std::partial_ordering::unordered;
    }
    return asDouble(a) <=> asDouble(b);
}

Shortcut shortcutOf(Condition condition, const tables::Column& column, sqlite3_value* constant) {
    Shortcut s;
    s.condition = condition;
    if (condition.op == Operator::IsNull) {
        s.usable = true;
        return s;
    }
    s.constant = storedOf(constant);
    const std::string_view bytes = std::exchange(s.constant.bytes, {});
    if (!sameClass(s.constant.storage, tables::declaredStorage(column))) return s;
    const bool text = s.constant.storage == Storage::Text;
    if (condition.op == Operator::Like || condition.op == Operator::Glob) {
        if (text && tables::isAscii(bytes)) takePattern(s, bytes);
        return s;
    }
    if (text) s.text = bytes;
    s.usable = true;
    return s;
}

bool mayHold(const Shortcut& s, const Stored& value) {
    const bool isNull = value.storage == Storage::Null;
    if (s.condition.op == Operator::IsNull) return isNull;
    if (isNull) return false;  // a comparison with null is never true
    if (s.condition.op == Operator::Like || s.condition.op == Operator::Glob) {
        return mayMatch(s, value);
    }
    const std::partial_ordering order = compare(value, s.value());
    if (order == std::partial_ordering::unordered) return true;
    if (s.condition.op == Operator::Equal) return order == 0;
    return inOrder(s.condition.op, order) ||
           (value.storage == Storage::Text && looksNumeric(value.bytes));
}

}  // namespace mira::sql
