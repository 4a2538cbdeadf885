// Conditions that are tested while scanning. SQLite tests every one again, so a shortcut may let
// too much through, never too little: it says no only where the comparison that SQLite would make
// is certain to fail.
#pragma once

#include <compare>
#include <string>
#include <vector>

#include "api.h"
#include "tables/value/storage.h"

namespace mira::sql {

using tables::Storage;
using tables::Stored;

enum class Operator : char {
    Equal = '=',
    Less = '<',
    LessEqual = 'l',
    Greater = '>',
    GreaterEqual = 'g',
    IsNull = '0',
    Like = 'L',
    Glob = 'G',
};

/// A condition on a column, as the plan of a query lists it.
struct Condition {
    int column = 0;  ///< number among the declared columns
    Operator op = Operator::Equal;
};

/// A condition with the constant of this scan.
struct Shortcut {
    Condition condition;
    bool usable = false;   ///< false: the constant is of another class, or a pattern says nothing
    Stored constant{};     ///< of a text the class alone
    std::string text{};    ///< a text, or the part of a pattern that every match holds
    bool atStart = false;  ///< a pattern: the part stands at the beginning

    /// The constant with its text.
    Stored value() const { return {constant.storage, constant.integer, constant.real, text}; }
};

/// SQLite's value; its bytes last as long as it is not used otherwise.
Stored storedOf(sqlite3_value* value);
/// How two numbers or two texts stand to each other, byte by byte; unordered where it cannot be
/// told.
std::partial_ordering compare(const Stored& a, const Stored& b);

/// column is that of the condition; the constant of IsNull does not count.
Shortcut shortcutOf(Condition condition, const tables::Column& column, sqlite3_value* constant);

/// False when the value is certain to fail the condition.
bool mayHold(const Shortcut& shortcut, const Stored& value);

}  // namespace mira::sql
