// One condition of a filter, as the filter files share it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "mira.h"

namespace mira {

/// cnd of a text that ends where the view ends.
bool conditionHolds(DbfBase*, std::string_view condition);

enum class Comparison : u8 {
    Never,
    Equal,
    Different,
    Less,
    LessEqual,
    Greater,
    GreaterEqual,
    Exact,     // of texts only: the whole texts
    Contains,  // likewise
    Lacks      // likewise
};

/// An operator of one or two characters and what it tests.
struct OperatorRow {
    char first;
    char second;  ///< 0 for one character
    Comparison text;
    Comparison number;
};

/// What an operand is made of: a literal, or the value of a field.
struct OperandPart {
    std::string literal;
    int field = -1;
};

struct Operand {
    std::vector<OperandPart> parts;
    std::size_t literals = 0;  ///< characters in literals
    int field = -1;            ///< of a number that is one field
    double value = 0;          ///< of a number that is constant
};

/// A condition taken apart once for many records. Holds as long as NoBracketCheck does.
struct Condition {
    enum Way : u8 {
        Never,    ///< false whatever the record holds
        Build,    ///< write the values into both operands and compare
        Numbers,  ///< numbers, each a constant or one field
        Texts     ///< a character field and a constant
    } way = Never;
    bool numeric = false;
    bool openOperator = false;  ///< a field follows the operator, its text may complete it
    const OperatorRow* op = nullptr;
    Operand left, right;
    std::string constant;  ///< the right operand of Texts
    std::string folded;    ///< the same in upper case
};

Condition prepareCondition(DbfBase*, std::string_view text);
/// Exactly conditionHolds of the text that was prepared.
bool conditionHolds(DbfBase*, const Condition&);

}  // namespace mira
