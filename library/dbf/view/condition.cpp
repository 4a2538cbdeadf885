// One condition of a filter.
//
//   condition  operand operator operand
//   operator   the first character outside quotes that is one of ><=~^+-/*() in the condition as
//              written; after = ~ > < also the next one, when it is > < or = in the condition with
//              the values written in
//
// A condition is taken apart once: fields, literals and operator do not depend on the record. For a
// record, the values are written into both operands, which are compared as numbers when a numeric
// field is among the values, else as texts.
#include "dbf/view/condition.h"

#include <array>

#include "internal/textout.h"

namespace mira {

namespace {

using enum Comparison;

constexpr OperatorRow kOperators[] = {
    {0, 0, Never, Never},  // any other
    {'=', 0, Equal, Equal},
    {'=', '=', Exact, Equal},
    {'>', 0, Greater, Greater},
    {'>', '>', Greater, Greater},
    {'<', 0, Less, Less},
    {'<', '<', Less, Less},
    {'>', '=', GreaterEqual, GreaterEqual},
    {'=', '>', GreaterEqual, GreaterEqual},
    {'<', '=', LessEqual, LessEqual},
    {'=', '<', LessEqual, LessEqual},
    {'<', '>', Different, Different},
    {'>', '<', Different, Different},
    {'~', 0, Contains, Equal},
    {'^', 0, Lacks, Equal},
    {'~', '<', Never, LessEqual},
    {'~', '>', Never, GreaterEqual},
    {'~', '=', Never, Never},
};

/// The characters that operators begin with, each once, and a zero byte.
constexpr auto kSigns = [] {
    std::array<char, std::size(kOperators)> signs{};
    std::size_t count = 0;
    for (const OperatorRow& row : kOperators) {
        const std::string_view known(signs.data(), count);
        if (row.first != 0 && known.find(row.first) == std::string_view::npos) {
            signs[count++] = row.first;
        }
    }
    return signs;
}();
static_assert(std::string_view(kSigns.data()).find_first_not_of(kOperatorBytes) ==
                  std::string_view::npos,
              "an operator of expressions begins with it, too");

/// The operator that begins with first, where next follows it.
const OperatorRow& operatorOf(char first, char next) {
    const char second = first != '^' && completesOperator(next) ? next : '\0';
    for (const OperatorRow& row : kOperators) {
        if (row.first == first && row.second == second) return row;
    }
    return kOperators[0];
}

bool numbersHold(DbfBase* h, Comparison c, char* left, char* right) {
    CheckBrackets(h, left);
    CheckBrackets(h, right);
    int status = 1;
    const double leftValue = parseSqueezed(left, &status);
    const double rightValue = parseSqueezed(right, &status);
    return status != 0 && inOrder(c, leftValue, rightValue);
}

std::string_view evaluated(DbfBase* h, char* side) {
    CheckBrackets(h, side);
    IgnoreCase(h, side, 0);
    return StrEval(side, h);
}

bool textsHold(DbfBase* h, Comparison c, char* left, char* right) {
    const std::string_view text = evaluated(h, left);
    return textHolds(c, text, evaluated(h, right));
}

}  // namespace

Condition prepareCondition(DbfBase* h, std::string_view text) {
    Condition c;
    c.op = &kOperators[0];
    c.sign = c.rightFirst = text.size();
    Expression e = readExpression(h, text);
    if (e.operatorPart < 0) return c;
    c.numeric = e.numeric;
    const auto split = e.parts.begin() + e.operatorPart;
    c.left.parts.assign(e.parts.begin(), split);
    c.right.parts.assign(split, e.parts.end());
    std::string& literal = c.right.parts.front().literal;  // it begins with the operator
    c.op = &operatorOf(literal[0], literal.c_str()[1]);
    literal.erase(0, operatorLength(*c.op));
    // Its second character stands in quotes or in a value where it does not follow as written.
    c.sign = e.operatorPlace;
    const char next = c.sign + 1 < text.size() ? text[c.sign + 1] : '\0';
    c.rightFirst = c.sign + operatorLength(operatorOf(text[c.sign], next));
    c.openOperator = literal.empty() && c.op->second == 0 && c.right.parts.size() > 1;
    if (literal.empty()) c.right.parts.erase(c.right.parts.begin());
    return c;
}

const char* GetFilterSigns() { return kSigns.data(); }

bool writtenHolds(DbfBase* h, const Condition& c) {
    if (c.op->first == 0) return false;
    FilterWork& work = *h->FilterState;
    TextOut left(work.LeftText, kConditionLength + 1);
    TextOut right(work.RightText, kConditionLength + 1);
    writeParts(h, c.left.parts, left);
    writeParts(h, c.right.parts, right);
    if (left.cut() || right.cut()) return false;
    if (left.length() + operatorLength(*c.op) + right.length() > kConditionLength) return false;
    const OperatorRow& op = c.openOperator ? operatorOf(c.op->first, *right.data()) : *c.op;
    char* const rest = right.data() + operatorLength(op) - operatorLength(*c.op);
    return c.numeric ? numbersHold(h, op.number, left.data(), rest)
                     : textsHold(h, op.text, left.data(), rest);
}

}  // namespace mira
