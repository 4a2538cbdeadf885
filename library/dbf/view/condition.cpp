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

#include "calcfld.h"
#include "dbf/table/table.h"
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

bool completesOperator(char c) { return c == '>' || c == '<' || c == '='; }

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

void addLiteral(Operand& operand, char c) {
    if (operand.parts.empty() || operand.parts.back().field >= 0) operand.parts.emplace_back();
    operand.parts.back().literal += c;
    ++operand.literals;
}

/// Takes the second character of an operator from the operand behind it.
void dropFirst(Operand& operand) {
    std::string& literal = operand.parts.front().literal;
    literal.erase(0, 1);
    if (literal.empty()) operand.parts.erase(operand.parts.begin());
    --operand.literals;
}

void writeOperand(DbfBase* h, const Operand& operand, TextOut& out) {
    for (const OperandPart& part : operand.parts) {
        if (part.field >= 0) {
            putFieldValue(h, part.field, out);
        } else {
            out.put(part.literal);
        }
    }
}

}  // namespace

Condition prepareCondition(DbfBase* h, std::string_view text) {
    Condition c;
    char first = 0;
    ExpressionReader reader{h, text};
    for (ExpressionItem item{}; readItem(reader, &item);) {
        Operand& operand = first == 0 ? c.left : c.right;
        if (item.kind == ExpressionItem::Field) {
            operand.parts.push_back({{}, item.field});
            c.numeric = c.numeric || isNumeric(h->Fields[item.field]);
        } else if (item.kind == ExpressionItem::Operator && first == 0) {
            first = item.byte;
        } else {
            addLiteral(operand, item.byte);
        }
    }
    // A field directly behind the operator has no literal.
    const std::string next = c.right.parts.empty() ? std::string() : c.right.parts.front().literal;
    c.op = &operatorOf(first, *next.c_str());
    c.openOperator = c.op->first != 0 && !c.right.parts.empty() && next.empty();
    if (c.op->second != 0) dropFirst(c.right);
    return c;
}

bool conditionHolds(DbfBase* h, const Condition& c) {
    if (const std::optional<bool> known = storedHolds(h, c)) return *known;
    FilterWork& work = *h->FilterState;
    TextOut left(work.LeftText, kConditionLength + 1);
    TextOut right(work.RightText, kConditionLength + 1);
    writeOperand(h, c.left, left);
    writeOperand(h, c.right, right);
    if (left.cut() || right.cut()) return false;
    if (left.length() + operatorLength(*c.op) + right.length() > kConditionLength) return false;
    const OperatorRow& op = c.openOperator ? operatorOf(c.op->first, *right.data()) : *c.op;
    char* const behind = right.data() + operatorLength(op) - operatorLength(*c.op);
    return c.numeric ? numbersHold(h, op.number, left.data(), behind)
                     : textsHold(h, op.text, left.data(), behind);
}

}  // namespace mira
