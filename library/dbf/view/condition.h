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

/// An operand of a text comparison as stored.cpp knows it: a constant, or a field among blanks and
/// other literals.
struct StoredText {
    int field = -1;
    std::string before, after;  ///< of a field
    std::string text;           ///< of a constant
    std::string folded;         ///< the same, evaluated in upper case
    std::size_t literals = 0;   ///< characters as written
};

struct Operand {
    std::vector<ExpressionPart> parts;
    Arithmetic number;  ///< of a comparison of numbers
    StoredText text;    ///< of texts
};

/// A condition taken apart once for many records. Holds as long as NoBracketCheck does.
struct Condition {
    bool numeric = false;
    bool openOperator = false;  ///< a field follows the operator, its text may complete it
    const OperatorRow* op = nullptr;
    Operand left, right;
    enum Stored : u8 { Unknown, Never, Numbers, Texts } stored = Unknown;
    i32 dateFormat = 0;  ///< for which the texts of constants hold
};

inline constexpr std::size_t kConditionLength = 511;  // of a condition with its values

// condition.cpp
Condition prepareCondition(DbfBase*, std::string_view text);
bool conditionHolds(DbfBase*, const Condition&);

// stored.cpp: a shortcut. Without it conditionHolds gives the same results, only later.
/// Looks for a way to compare the values as they are stored.
void prepareStored(DbfBase*, Condition&);
/// The result, when comparing the values as they are stored leads to it.
std::optional<bool> storedHolds(DbfBase*, const Condition&);

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
        default:
            return false;
    }
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
        default:
            const std::size_t count = std::min(left.size(), right.size());
            return inOrder(c, std::memcmp(left.data(), right.data(), count), 0);
    }
}

}  // namespace mira
