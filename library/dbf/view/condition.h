// One condition of a filter, as the filter files share it.
#pragma once

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "expression.h"
#include "mira.h"

namespace mira {

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
inline std::size_t operatorLength(const OperatorRow& op) { return op.second != 0 ? 2 : 1; }

inline bool completesOperator(char c) { return c == '>' || c == '<' || c == '='; }

/// An operand of a text comparison as stored.cpp knows it: a constant, or a field between literals.
struct StoredText {
    enum Kind : u8 { Constant, Characters, Letter, Date, Other } kind = Constant;
    int field = -1;
    std::size_t literals = 0;   ///< characters as written
    std::string before, after;  ///< of a field
    std::string text;           ///< of a constant
    std::string folded;         ///< the same, evaluated in upper case
};

struct Operand {
    std::vector<ExpressionPart> parts;
    Arithmetic number;  ///< of a comparison of numbers
    StoredText text;    ///< of texts
};

/// A condition taken apart once for many records. Valid while NoBracketCheck is
/// unchanged.
struct Condition {
    bool numeric = false;
    bool openOperator = false;  ///< a field follows the operator, its text may complete it
    const OperatorRow* op = nullptr;
    /// Where the operator and the right side begin in the text; its end without an operator.
    std::size_t sign = 0, rightFirst = 0;
    Operand left, right;
    /// The shortcut, if there is one: the result, or nothing where only the rule can tell.
    std::optional<bool> (*stored)(DbfBase*, const Condition&) = nullptr;
    i32 dateFormat = 0;  ///< for which the texts of constants hold
};

inline constexpr std::size_t kConditionLength = 511;  // of a condition with its values

// condition.cpp
Condition prepareCondition(DbfBase*, std::string_view text);
inline bool hasOperator(const Condition& c) { return c.rightFirst != c.sign; }
/// The rule: writes the values and compares.
bool writtenHolds(DbfBase*, const Condition&);

// stored.cpp
/// Gives a condition a shortcut. Without it the results are the same, only later.
void prepareStored(DbfBase*, Condition&);

/// Tests the record in RecordBuffer.
inline bool conditionHolds(DbfBase* h, const Condition& c) {
    const std::optional<bool> known = c.stored != nullptr ? c.stored(h, c) : std::nullopt;
    return known ? *known : writtenHolds(h, c);
}

template <typename T>
bool inOrder(Comparison c, T a, T b) {
    switch (c) {
        case Comparison::Equal:
            return a == b;
        case Comparison::Different:
            return a != b;
        case Comparison::Less:
            return a < b;
        case Comparison::LessEqual:
            return a <= b;
        case Comparison::Greater:
            return a > b;
        case Comparison::GreaterEqual:
            return a >= b;
        case Comparison::Never:
        case Comparison::Exact:
        case Comparison::Contains:
        case Comparison::Lacks:
            return false;
    }
    return false;
}

/// Texts are ordered by as many characters as the shorter one has.
inline bool textHolds(Comparison c, std::string_view left, std::string_view right) {
    switch (c) {
        case Comparison::Exact:
            return left == right;
        case Comparison::Contains:
            return left.find(right) != std::string_view::npos;
        case Comparison::Lacks:
            return left.find(right) == std::string_view::npos;
        case Comparison::Never:
        case Comparison::Equal:
        case Comparison::Different:
        case Comparison::Less:
        case Comparison::LessEqual:
        case Comparison::Greater:
        case Comparison::GreaterEqual:
            break;
    }
    return inOrder(c, std::memcmp(left.data(), right.data(), std::min(left.size(), right.size())),
                   0);
}

}  // namespace mira
