// The shortcut of the filter: values compared as the record stores them.
//
// Numbers are computed with as they are stored. Texts of fields are compared where they stand, when
// no string function and no repair of parentheses can change them; those of constants are evaluated
// once. Everything else is left to the rule in condition.cpp.
#include "dbf/table/table.h"
#include "dbf/view/condition.h"

namespace mira {

namespace {

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

// --------------------------------------------------------------------------------------------
// Numbers
// --------------------------------------------------------------------------------------------

Condition::Stored prepareNumbers(DbfBase* h, Condition& c) {
    Arithmetic& left = c.left.number;
    Arithmetic& right = c.right.number;
    left = prepareArithmetic(h, c.left.parts, true);
    right = prepareArithmetic(h, c.right.parts, true);
    if (left.way == Arithmetic::Fails || right.way == Arithmetic::Fails) return Condition::Never;
    if (left.way == Arithmetic::Unknown || right.way == Arithmetic::Unknown) {
        return Condition::Unknown;
    }
    const std::size_t longest = left.longest + operatorLength(*c.op) + right.longest;
    return longest <= kConditionLength ? Condition::Numbers : Condition::Unknown;
}

std::optional<bool> numbersHold(DbfBase* h, const Condition& c) {
    double left = 0;
    double right = 0;
    const Outcome leftOutcome = outcomeOf(h, c.left.number, &left);
    if (leftOutcome == Outcome::Unknown) return {};
    const Outcome rightOutcome = outcomeOf(h, c.right.number, &right);
    if (rightOutcome == Outcome::Unknown) return {};
    if (leftOutcome == Outcome::Fails || rightOutcome == Outcome::Fails) return false;
    return inOrder(c.op->number, left, right);
}

// --------------------------------------------------------------------------------------------
// Texts
// --------------------------------------------------------------------------------------------

bool isPlain(const std::string& literal) { return !has(literal, '(') && !has(literal, ')'); }

/// A constant as the rule evaluates it, in upper case first when folded.
std::string constantText(DbfBase* h, std::string text, bool folded) {
    CheckBrackets(h, text.data());
    if (folded) UpperCase(reinterpret_cast<unsigned char*>(text.data()));
    return StrEval(text.data(), h);
}

/// False for what the rule has to write out.
bool prepareText(DbfBase* h, Operand& operand) {
    StoredText& t = operand.text;
    std::string literals;
    for (const ExpressionPart& part : operand.parts) {
        if (part.field >= 0 && t.field >= 0) return false;
        if (part.field >= 0) t.field = part.field;
        (t.field >= 0 ? t.after : t.before) += part.literal;
    }
    t.literals = t.before.size() + t.after.size();
    if (t.field >= 0) return isPlain(t.before) && isPlain(t.after);
    t.text = constantText(h, t.before, false);
    t.folded = constantText(h, t.before, true);
    return true;
}

std::string_view trimmed(std::string_view text, i32 mode) {
    if (mode == 1 || mode == 3) text = text.substr(0, text.find_last_not_of(' ') + 1);
    if (mode == 2 || mode == 3)
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    return text;
}

/// The text of a field up to a zero byte, where it stands if possible. False where a parenthesis
/// asks for more.
bool fieldText(DbfBase* h, int field, std::string_view* text) {
    const DbfField& f = h->Fields[field];
    const bool characters = showsCharacters(f.Type);
    if (characters || f.Type == 'L') {
        const std::size_t length = characters ? fieldBytes(h, field).size() : 1;
        *text = {reinterpret_cast<const char*>(h->RecordBuffer) + f.Offset, length};
    } else if (!storedDate(h, field, text)) {
        *text = valueText(h, field);
    }
    if (hasSpecialByte(*text)) {
        *text = text->substr(0, text->find('\0'));
        if (has(*text, '(') || has(*text, ')')) return false;
    }
    if (characters) *text = trimmed(*text, h->TrimMode);
    return true;
}

/// The evaluated text of an operand, where it stands or in a buffer of the work area, and its
/// length as written.
bool operandText(DbfBase* h, const StoredText& t, char* buffer, std::string_view* text,
                 std::size_t* length) {
    const bool folded = h->CaseInsensitive != 0;
    *length = t.literals;
    if (t.field < 0) {
        *text = folded ? t.folded : t.text;
        return true;
    }
    if (!fieldText(h, t.field, text)) return false;
    *length += text->size();
    if (*length > kConditionLength) return false;
    if (!folded && t.literals == 0 && text->data() != h->TextBuffer) return true;
    TextOut out(buffer, kConditionLength + 1);
    out.put(t.before);
    out.put(*text);
    out.put(t.after);
    if (folded) UpperCase(reinterpret_cast<unsigned char*>(buffer));
    *text = {buffer, out.length()};
    return true;
}

std::optional<bool> textsHold(DbfBase* h, const Condition& c) {
    if (h->OemConvert != 0 || h->DateFormat != c.dateFormat) return {};
    if (h->CaseInsensitive != 0 && h->UpperCaseCallback != nullptr) return {};
    std::string_view left, right;
    std::size_t leftLength = 0, rightLength = 0;
    if (!operandText(h, c.left.text, h->FilterState->LeftText, &left, &leftLength)) return {};
    if (!operandText(h, c.right.text, h->FilterState->RightText, &right, &rightLength)) return {};
    if (leftLength + operatorLength(*c.op) + rightLength > kConditionLength) return {};
    if (c.openOperator && !right.empty() && completesOperator(right[0])) return {};
    return textHolds(c.op->text, left, right);
}

Condition::Stored preparedWay(DbfBase* h, Condition& c) {
    if (c.numeric) {
        return c.openOperator || c.op->number != Comparison::Never ? prepareNumbers(h, c)
                                                                   : Condition::Never;
    }
    if (!c.openOperator && c.op->text == Comparison::Never) return Condition::Never;
    c.dateFormat = h->DateFormat;
    const bool both = prepareText(h, c.left) && prepareText(h, c.right);
    return both ? Condition::Texts : Condition::Unknown;
}

}  // namespace

void prepareStored(DbfBase* h, Condition& c) { c.stored = preparedWay(h, c); }

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
