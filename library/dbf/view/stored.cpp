// The shortcut of the filter: values compared as the record stores them.
//
// Numbers are computed with as they are stored. Texts of fields are compared where they stand, when
// no string function and no repair of parentheses can change them; those of constants are evaluated
// once. Everything else is left to the rule in condition.cpp.
#include "dbf/table/table.h"
#include "dbf/view/condition.h"

namespace mira {

namespace {

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

std::optional<bool> neverHolds(DbfBase* /*h*/, const Condition& /*c*/) { return false; }

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

/// The most common condition, a field against a constant.
std::optional<bool> fieldHolds(DbfBase* h, const Condition& c) {
    double value = 0;
    if (!storedNumber(h, c.left.number.field, &value)) return {};
    return inOrder(c.op->number, value, c.right.number.constant);
}

void prepareNumbers(DbfBase* h, Condition& c) {
    const Arithmetic& left = c.left.number = prepareArithmetic(h, c.left.parts, true);
    const Arithmetic& right = c.right.number = prepareArithmetic(h, c.right.parts, true);
    const std::size_t longest = left.longest + operatorLength(*c.op) + right.longest;
    if (left.way == Arithmetic::Fails || right.way == Arithmetic::Fails) {
        c.stored = neverHolds;
    } else if (left.way != Arithmetic::Unknown && right.way != Arithmetic::Unknown &&
               longest <= kConditionLength) {
        const bool common = left.way == Arithmetic::Field && right.way == Arithmetic::Constant;
        c.stored = common ? fieldHolds : numbersHold;
    }
}

// --------------------------------------------------------------------------------------------
// Texts
// --------------------------------------------------------------------------------------------

bool isPlain(std::string_view text) { return !has(text, '(') && !has(text, ')'); }

/// A constant as the rule evaluates it, in upper case first when folded.
std::string constantText(DbfBase* h, std::string text, bool folded) {
    CheckBrackets(h, text.data());
    if (folded) UpperCase(reinterpret_cast<unsigned char*>(text.data()));
    return StrEval(text.data(), h);
}

StoredText::Kind kindOf(const DbfField& f) {
    if (isText(f)) return StoredText::Characters;
    if (isDateOrMoment(f)) return StoredText::Date;
    return valueClass(f) == ValueClass::Logical ? StoredText::Letter : StoredText::Other;
}

/// False for what the rule has to write out.
bool prepareText(DbfBase* h, Operand& operand) {
    StoredText& t = operand.text;
    for (const ExpressionPart& part : operand.parts) {
        if (part.field >= 0 && t.field >= 0) return false;
        if (part.field >= 0) t.field = part.field;
        (t.field >= 0 ? t.after : t.before) += part.literal;
    }
    t.literals = t.before.size() + t.after.size();
    if (t.field >= 0) {
        t.kind = kindOf(h->Fields[t.field]);
        return isPlain(t.before) && isPlain(t.after);
    }
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

/// The text of a field as the record or, after rendering, TextBuffer holds it.
std::string_view fieldText(DbfBase* h, const StoredText& t) {
    if (t.kind == StoredText::Date) {
        if (const std::optional<std::string_view> stored = storedDate(h, t.field)) return *stored;
    }
    if (t.kind >= StoredText::Date) return valueText(h, t.field);
    const DbfField& f = h->Fields[t.field];
    const std::size_t length = t.kind == StoredText::Letter ? 1 : fieldBytes(h, t.field).size();
    return {reinterpret_cast<const char*>(h->RecordBuffer) + f.Offset, length};
}

/// The text between its literals, folded when case does not matter, in a buffer of the work area.
std::string_view composed(const DbfBase* h, const StoredText& t, std::string_view text,
                          char* buffer) {
    TextOut out(buffer, kConditionLength + 1);
    out.put(t.before);
    out.put(text);
    out.put(t.after);
    if (h->CaseInsensitive != 0) UpperCase(reinterpret_cast<unsigned char*>(buffer));
    return {buffer, out.length()};
}

/// The text of an operand with a field. Null when a parenthesis asks for repair or a string
/// function, or when it is too long.
std::string_view fieldOperand(DbfBase* h, const StoredText& t, char* buffer) {
    std::string_view text = fieldText(h, t);
    if (hasSpecialByte(text)) {
        text = text.substr(0, text.find('\0'));
        if (!isPlain(text)) return {};
    }
    if (t.kind == StoredText::Characters && h->TrimMode != 0) text = trimmed(text, h->TrimMode);
    if (t.literals + text.size() > kConditionLength) return {};
    const bool stays = t.literals == 0 && text.data() != h->TextBuffer && h->CaseInsensitive == 0;
    return stays ? text : composed(h, t, text, buffer);
}

inline std::string_view operandText(DbfBase* h, const StoredText& t, char* buffer) {
    if (t.kind != StoredText::Constant) return fieldOperand(h, t, buffer);
    return h->CaseInsensitive != 0 ? t.folded : t.text;
}

/// Characters of an operand before its functions are evaluated.
std::size_t writtenLength(const StoredText& t, std::string_view text) {
    return t.kind == StoredText::Constant ? t.literals : text.size();
}

std::optional<bool> textsHold(DbfBase* h, const Condition& c) {
    if (h->OemConvert != 0 || h->DateFormat != c.dateFormat) return {};
    if (h->CaseInsensitive != 0 && h->UpperCaseCallback != nullptr) return {};
    const std::string_view left = operandText(h, c.left.text, h->FilterState->LeftText);
    const std::string_view right = operandText(h, c.right.text, h->FilterState->RightText);
    if (left.data() == nullptr || right.data() == nullptr) return {};
    const std::size_t length = writtenLength(c.left.text, left) + operatorLength(*c.op) +
                               writtenLength(c.right.text, right);
    if (length > kConditionLength) return {};
    if (c.openOperator && !right.empty() && completesOperator(right[0])) return {};
    return textHolds(c.op->text, left, right);
}

/// The most common one, characters as stored against a constant.
std::optional<bool> charactersHold(DbfBase* h, const Condition& c) {
    const std::string_view text = storedText(h, c.left.text.field);
    const bool asStored = h->CaseInsensitive == 0 && h->TrimMode == 0 && h->OemConvert == 0 &&
                          h->DateFormat == c.dateFormat && !hasSpecialByte(text);
    const std::size_t length = text.size() + operatorLength(*c.op) + c.right.text.literals;
    if (!asStored || length > kConditionLength) return textsHold(h, c);
    return textHolds(c.op->text, text, c.right.text.text);
}

void prepareTexts(DbfBase* h, Condition& c) {
    c.dateFormat = h->DateFormat;
    if (!prepareText(h, c.left) || !prepareText(h, c.right)) return;
    const bool common = c.left.text.kind == StoredText::Characters && c.left.text.literals == 0 &&
                        c.right.text.kind == StoredText::Constant;
    c.stored = common ? charactersHold : textsHold;
}

}  // namespace

void prepareStored(DbfBase* h, Condition& c) {
    if (!c.openOperator && (c.numeric ? c.op->number : c.op->text) == Comparison::Never) {
        c.stored = neverHolds;
    } else if (c.numeric) {
        prepareNumbers(h, c);
    } else {
        prepareTexts(h, c);
    }
}

}  // namespace mira
