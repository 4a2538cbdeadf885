// One condition of a filter, the plain way and prepared.
//
//   condition  operand operator operand
//   operator   the first character outside quotes that is one of ><=~^+-/*() in the condition as
//              written; after = ~ > < also the next one, when it is > < or = in the condition with
//              the values written in
//
// The plain way writes the values of the record into the condition, splits it at the operator and
// compares the two sides, as numbers when a numeric field was among the values, else as texts.
//
// A prepared condition has found fields, literals and operator beforehand. Where a side is a number
// that is stored plainly, or a character field, the record is compared as it is stored: the result
// is the one that rendering and parsing would lead to. All else is written out as in the plain way.
#include <algorithm>
#include <cstring>

#include "calcfld.h"
#include "dbf/table/table.h"
#include "dbf/view/filter.h"
#include "internal/bytes.h"
#include "internal/decimal.h"

namespace mira {

namespace {

using enum Comparison;

constexpr std::size_t kConditionSize = 512;  // a condition with its values, and a zero byte
constexpr std::size_t kConditionLength = kConditionSize - 1;

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

std::size_t operatorLength(const OperatorRow& op) { return op.second != 0 ? 2 : 1; }

template <typename T>
bool inOrder(Comparison c, T a, T b) {
    switch (c) {
        case Equal:
            return a == b;
        case Different:
            return a != b;
        case Less:
            return a < b;
        case LessEqual:
            return a <= b;
        case Greater:
            return a > b;
        case GreaterEqual:
            return a >= b;
        default:
            return false;
    }
}

/// Texts are ordered by as many characters as the shorter one has.
bool textHolds(Comparison c, std::string_view left, std::string_view right) {
    switch (c) {
        case Exact:
            return left == right;
        case Contains:
            return left.find(right) != std::string_view::npos;
        case Lacks:
            return left.find(right) == std::string_view::npos;
        default:
            const std::size_t count = std::min(left.size(), right.size());
            return inOrder(c, std::memcmp(left.data(), right.data(), count), 0);
    }
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

/// Compares two sides with their values written in; rewrites both.
bool sidesHold(DbfBase* h, const OperatorRow& op, bool numeric, char* left, char* right) {
    return numeric ? numbersHold(h, op.number, left, right) : textsHold(h, op.text, left, right);
}

// --------------------------------------------------------------------------------------------
// Numbers and texts as the record stores them
// --------------------------------------------------------------------------------------------

constexpr double kPowersOfTen[kExactDigits + 1] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                                   1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};

/// A decimal of up to 15 digits without exponent, with blanks around it, or all blanks. Both the
/// digits and the power of ten are exact in a double, so one division rounds as a parser does.
struct PlainDecimal {
    double value;
    std::size_t whole, decimals;  // digits
};
bool readPlain(std::span<const u8> text, PlainDecimal* result) {
    const auto isDigit = [](u8 c) { return c >= '0' && c <= '9'; };
    const u8* at = text.data();
    const u8* const end = at + text.size();
    while (at != end && *at == ' ') ++at;
    *result = {0.0, 0, 0};
    if (at == end) return true;
    const bool negative = *at == '-';
    if (negative) ++at;
    u64 digits = 0;
    const u8* const first = at;
    for (; at != end && isDigit(*at); ++at) digits = digits * 10 + (*at - u64{'0'});
    result->whole = static_cast<std::size_t>(at - first);
    if (at != end && *at == '.') {
        const u8* const decimals = ++at;
        for (; at != end && isDigit(*at); ++at) digits = digits * 10 + (*at - u64{'0'});
        result->decimals = static_cast<std::size_t>(at - decimals);
    }
    while (at != end && *at == ' ') ++at;
    const std::size_t count = result->whole + result->decimals;
    if (at != end || count == 0 || count > kExactDigits) return false;
    const double value = static_cast<double>(digits) / kPowersOfTen[result->decimals];
    result->value = negative ? -value : value;
    return true;
}

/// N and F. The value that counts is the one printed with the field's decimals: the same, unless
/// decimals are cut off or the digits are more than a double keeps.
bool decimalValue(DbfBase* h, int field, const DbfField& f, double* value) {
    PlainDecimal number{};
    if (!readPlain(fieldBytes(h, field), &number)) return false;
    *value = number.value;
    if (h->RawNumeric != 0) return true;
    const bool losesDigit = f.Decimals != 0 && f.Length == f.Decimals + 1;  // shown as .50
    return !losesDigit && number.decimals <= f.Decimals &&
           number.whole + f.Decimals <= kExactDigits;
}

bool currencyValue(DbfBase* h, int field, double* value) {
    const auto stored = static_cast<i64>(loadLe64(fieldPrefix<8>(h, field).data()));
    *value = GetCurrency(h, field);
    return stored > -kExactCurrency && stored < kExactCurrency;
}

/// What parse gives for the text of a numeric field; false where only parse can tell.
bool fieldNumber(DbfBase* h, int field, double* value) {
    const DbfField& f = h->Fields[field];
    switch (f.Type) {
        case 'N':
        case 'F':
            return decimalValue(h, field, f, value);
        case 'I':
        case '+':
            *value = static_cast<i32>(GetInt(h, field));
            return true;
        case 'Y':
            return currencyValue(h, field, value);
        default:
            return false;
    }
}

bool showsCharacters(char type) { return type == 'C' || type == 'Q' || type == 'V' || type == '0'; }

bool has(std::string_view text, char c) { return text.find(c) != std::string_view::npos; }

/// Non-zero when a byte of the word is zero.
u64 zeroBytes(u64 word) { return (word - 0x0101010101010101) & ~word & 0x8080808080808080; }

/// Non-zero when a zero byte or a parenthesis is among eight bytes; "(" and ")" differ in the
/// lowest bit only.
u64 specialBytes(const char* eight) {
    static_assert('(' == 0x28 && ')' == 0x29);
    u64 word = 0;
    std::memcpy(&word, eight, sizeof word);
    return zeroBytes(word) | zeroBytes((word & 0xFEFEFEFEFEFEFEFE) ^ 0x2828282828282828);
}

bool hasSpecialByte(std::string_view text) {
    constexpr std::size_t step = sizeof(u64);
    if (text.size() < step) return has(text, 0) || has(text, '(') || has(text, ')');
    const std::size_t last = text.size() - step;
    u64 found = specialBytes(text.data() + last);
    for (std::size_t i = 0; i < last; i += step) found |= specialBytes(text.data() + i);
    return found != 0;
}

/// The text of a character field where it stands. False where something would be done to it: a
/// conversion, or, with a parenthesis in it, the repair of parentheses or a string function.
bool fieldText(DbfBase* h, int field, std::string_view* text) {
    if (h->OemConvert != 0) return false;
    const std::span<const u8> bytes = fieldBytes(h, field);
    std::string_view t(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (hasSpecialByte(t)) {
        t = t.substr(0, t.find('\0'));
        if (has(t, '(') || has(t, ')')) return false;
    }
    const i32 mode = h->TrimMode;
    if (mode == 1 || mode == 3) t = t.substr(0, t.find_last_not_of(' ') + 1);
    if (mode == 2 || mode == 3) t.remove_prefix(std::min(t.find_first_not_of(' '), t.size()));
    *text = t;
    return true;
}

// --------------------------------------------------------------------------------------------
// Preparing
// --------------------------------------------------------------------------------------------

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

bool isConstant(const Operand& operand) {
    return std::all_of(operand.parts.begin(), operand.parts.end(),
                       [](const OperandPart& part) { return part.field < 0; });
}

/// The text of a constant operand, parentheses repaired.
std::string constantText(DbfBase* h, const Operand& operand) {
    std::string text = operand.parts.empty() ? std::string() : operand.parts.front().literal;
    CheckBrackets(h, text.data());
    text.resize(std::strlen(text.c_str()));
    return text;
}

/// Numbers are prepared where they are a constant or one field, with nothing but blanks around it.
enum class NumberKind : u8 { Wrong, Prepared, Other };
NumberKind prepareNumber(DbfBase* h, Operand& operand) {
    if (isConstant(operand)) {
        std::string text = constantText(h, operand);
        int status = 1;
        operand.value = parseSqueezed(text.data(), &status);
        return status != 0 ? NumberKind::Prepared : NumberKind::Wrong;
    }
    for (const OperandPart& part : operand.parts) {
        if (part.literal.find_first_not_of(' ') != std::string::npos) return NumberKind::Other;
        if (part.field < 0) continue;
        if (operand.field >= 0) return NumberKind::Other;
        operand.field = part.field;
    }
    return if_digit_type(h, operand.field) != 0 ? NumberKind::Prepared : NumberKind::Other;
}

/// Characters that a number takes at most when fieldNumber knows its value.
std::size_t numberWidth(const DbfBase* h, int field) {
    constexpr u8 widest = 24;
    return field >= 0 ? std::max(h->Fields[field].Length, widest) : 0;
}

Condition::Way prepareNumbers(DbfBase* h, Condition& c) {
    const NumberKind left = prepareNumber(h, c.left);
    const NumberKind right = prepareNumber(h, c.right);
    if (left == NumberKind::Wrong || right == NumberKind::Wrong) return Condition::Never;
    if (left == NumberKind::Other || right == NumberKind::Other) return Condition::Build;
    const std::size_t longest = c.left.literals + numberWidth(h, c.left.field) +
                                operatorLength(*c.op) + c.right.literals +
                                numberWidth(h, c.right.field);
    return longest <= kConditionLength ? Condition::Numbers : Condition::Build;
}

Condition::Way prepareTexts(DbfBase* h, Condition& c) {
    const std::vector<OperandPart>& parts = c.left.parts;
    if (parts.size() != 1 || parts[0].field < 0 || !isConstant(c.right)) return Condition::Build;
    c.constant = constantText(h, c.right);
    c.folded = c.constant;
    UpperCase(reinterpret_cast<unsigned char*>(c.folded.data()));
    c.left.field = parts[0].field;
    const bool plain = showsCharacters(h->Fields[c.left.field].Type) && !has(c.constant, '(');
    return plain ? Condition::Texts : Condition::Build;
}

// --------------------------------------------------------------------------------------------
// Testing a record
// --------------------------------------------------------------------------------------------

bool operandNumber(DbfBase* h, const Operand& operand, double* value) {
    *value = operand.value;
    return operand.field < 0 || fieldNumber(h, operand.field, value);
}

bool foldedTextHolds(DbfBase* h, const Condition& c, std::string_view text) {
    char* const left = h->FilterState->LeftText;
    std::memcpy(left, text.data(), text.size());
    left[text.size()] = 0;
    UpperCase(reinterpret_cast<unsigned char*>(left));
    return textHolds(c.op->text, {left, text.size()}, c.folded);
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

bool builtHolds(DbfBase* h, const Condition& c) {
    FilterWork& work = *h->FilterState;
    TextOut left(work.LeftText, kConditionSize);
    TextOut right(work.RightText, kConditionSize);
    writeOperand(h, c.left, left);
    writeOperand(h, c.right, right);
    const std::size_t length = left.length() + operatorLength(*c.op) + right.length();
    if (left.cut() || right.cut() || length > kConditionLength) return false;
    if (!c.openOperator) return sidesHold(h, *c.op, c.numeric, left.data(), right.data());
    const OperatorRow& op = operatorOf(c.op->first, *right.data());
    return sidesHold(h, op, c.numeric, left.data(), right.data() + operatorLength(op) - 1);
}

}  // namespace

bool conditionHolds(DbfBase* h, std::string_view condition) {
    if (h->FilterState == nullptr) return false;
    FilterWork& work = *h->FilterState;
    char text[kConditionSize];
    TextOut out(text, sizeof text);
    int numeric = 0;
    const int position = expandExpression(h, condition, out, &numeric);
    if (position < 0 || out.cut()) return false;
    const std::string_view expansion(text, out.length());
    const auto place = static_cast<std::size_t>(position);
    const OperatorRow& op = operatorOf(text[place], text[place + 1]);
    TextOut left(work.LeftText, sizeof work.LeftText);
    TextOut right(work.RightText, sizeof work.RightText);
    left.put(expansion.substr(0, place));
    right.put(expansion.substr(place + operatorLength(op)));
    return sidesHold(h, op, numeric != 0, left.data(), right.data());
}

Condition prepareCondition(DbfBase* h, std::string_view text) {
    Condition c;
    char first = 0;
    ExpressionReader reader{h, text};
    for (ExpressionItem item{}; readItem(reader, &item);) {
        Operand& operand = first == 0 ? c.left : c.right;
        if (item.kind == ExpressionItem::Field) {
            operand.parts.push_back({{}, item.field});
            c.numeric = c.numeric || if_digit_type(h, item.field) != 0;
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
    if (!c.openOperator && (c.numeric ? c.op->number : c.op->text) == Never) return c;
    c.way = c.numeric ? prepareNumbers(h, c) : prepareTexts(h, c);
    return c;
}

bool conditionHolds(DbfBase* h, const Condition& c) {
    double left = 0;
    double right = 0;
    std::string_view text;
    switch (c.way) {
        case Condition::Never:
            return false;
        case Condition::Numbers:
            if (!operandNumber(h, c.left, &left) || !operandNumber(h, c.right, &right)) break;
            return inOrder(c.op->number, left, right);
        case Condition::Texts:
            if (!fieldText(h, c.left.field, &text)) break;
            if (text.size() + operatorLength(*c.op) + c.right.literals > kConditionLength) break;
            if (h->CaseInsensitive == 0) return textHolds(c.op->text, text, c.constant);
            if (h->UpperCaseCallback != nullptr) break;
            return foldedTextHolds(h, c, text);
        case Condition::Build:
            break;
    }
    return builtHolds(h, c);
}

char cnd(DbfBase* h, const char* condition) {
    return condition != nullptr && conditionHolds(h, std::string_view(condition)) ? '1' : '0';
}

}  // namespace mira
