// The shortcut of the filter: values compared as the record stores them.
//
// Where an operand is a number that is stored plainly, or a character field, the result is the one
// that rendering and parsing would lead to. Everything else is left to the rule in condition.cpp.
#include "calcfld.h"
#include "dbf/table/table.h"
#include "dbf/view/condition.h"
#include "internal/bytes.h"
#include "internal/decimal.h"

namespace mira {

namespace {

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

/// Numbers are known where they are a constant or one field, with nothing but blanks around it.
Condition::Stored prepareNumber(DbfBase* h, Operand& operand) {
    StoredOperand& stored = operand.stored;
    if (isConstant(operand)) {
        std::string text = constantText(h, operand);
        int status = 1;
        stored.number = parseSqueezed(text.data(), &status);
        return status != 0 ? Condition::Numbers : Condition::Never;
    }
    for (const OperandPart& part : operand.parts) {
        if (part.literal.find_first_not_of(' ') != std::string::npos) return Condition::Unknown;
        if (part.field < 0) continue;
        if (stored.field >= 0) return Condition::Unknown;
        stored.field = part.field;
    }
    return isNumeric(h->Fields[stored.field]) ? Condition::Numbers : Condition::Unknown;
}

/// Characters that an operand takes at most when fieldNumber knows its value. A blank number shown
/// as it is stored gets a zero behind it.
std::size_t numberWidth(const DbfBase* h, const Operand& operand) {
    constexpr std::size_t widest = 24;
    const int field = operand.stored.field;
    const std::size_t width =
        field >= 0 ? std::max<std::size_t>(h->Fields[field].Length + 1u, widest) : 0;
    return operand.literals + width;
}

Condition::Stored prepareNumbers(DbfBase* h, Condition& c) {
    const Condition::Stored left = prepareNumber(h, c.left);
    const Condition::Stored right = prepareNumber(h, c.right);
    if (left == Condition::Never || right == Condition::Never) return Condition::Never;
    const std::size_t longest =
        numberWidth(h, c.left) + operatorLength(*c.op) + numberWidth(h, c.right);
    return left == right && longest <= kConditionLength ? left : Condition::Unknown;
}

Condition::Stored prepareTexts(DbfBase* h, Condition& c) {
    const std::vector<OperandPart>& parts = c.left.parts;
    if (parts.size() != 1 || parts[0].field < 0 || !isConstant(c.right)) return Condition::Unknown;
    StoredOperand& constant = c.right.stored;
    constant.text = constantText(h, c.right);
    constant.folded = constant.text;
    UpperCase(reinterpret_cast<unsigned char*>(constant.folded.data()));
    c.left.stored.field = parts[0].field;
    const bool plain = showsCharacters(h->Fields[parts[0].field].Type) && !has(constant.text, '(');
    return plain ? Condition::Texts : Condition::Unknown;
}

bool operandNumber(DbfBase* h, const StoredOperand& operand, double* value) {
    *value = operand.number;
    return operand.field < 0 || fieldNumber(h, operand.field, value);
}

std::optional<bool> numbersHold(DbfBase* h, const Condition& c) {
    double left = 0;
    double right = 0;
    if (!operandNumber(h, c.left.stored, &left)) return {};
    if (!operandNumber(h, c.right.stored, &right)) return {};
    return inOrder(c.op->number, left, right);
}

bool foldedTextHolds(DbfBase* h, const Condition& c, std::string_view text) {
    char* const left = h->FilterState->LeftText;
    std::memcpy(left, text.data(), text.size());
    left[text.size()] = 0;
    UpperCase(reinterpret_cast<unsigned char*>(left));
    return textHolds(c.op->text, {left, text.size()}, c.right.stored.folded);
}

std::optional<bool> textsHold(DbfBase* h, const Condition& c) {
    std::string_view text;
    if (!fieldText(h, c.left.stored.field, &text)) return {};
    if (text.size() + operatorLength(*c.op) + c.right.literals > kConditionLength) return {};
    if (h->CaseInsensitive == 0) return textHolds(c.op->text, text, c.right.stored.text);
    if (h->UpperCaseCallback != nullptr) return {};
    return foldedTextHolds(h, c, text);
}

}  // namespace

void prepareStored(DbfBase* h, Condition& c) {
    if (!c.openOperator && (c.numeric ? c.op->number : c.op->text) == Comparison::Never) {
        c.stored = Condition::Never;
    } else {
        c.stored = c.numeric ? prepareNumbers(h, c) : prepareTexts(h, c);
    }
}

std::optional<bool> storedHolds(DbfBase* h, const Condition& c) {
    switch (c.stored) {
        case Condition::Never:
            return false;
        case Condition::Numbers:
            return numbersHold(h, c);
        case Condition::Texts:
            return textsHold(h, c);
        case Condition::Unknown:
            break;
    }
    return {};
}

}  // namespace mira
