// Conditions that are tested while scanning. SQLite tests every one again, so a shortcut may let
// too much through, never too little: it says no only where the comparison that SQLite would make
// is certain to fail.
#pragma once

#include <string>
#include <vector>

#include "api.h"
#include "result.h"

namespace mira::sql {

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
    bool usable =
        false;  ///< false: the constant is of another class, or a pattern that says nothing
    int type = SQLITE_NULL;
    i64 integer = 0;
    double real = 0;
    std::string text;      ///< the constant, or the part of a pattern that every match holds
    bool atStart = false;  ///< a pattern: the part stands at the beginning
};

/// The constant of a condition; null for IsNull.
Shortcut shortcutOf(Condition condition, const char* declaredType, sqlite3_value* constant);

/// False when the value is certain to fail the condition.
bool mayHold(const Shortcut& shortcut, const Stored& value);

}  // namespace mira::sql
