// Taking expressions apart, writing values into them, computing them.
//
//   expression  { quoted | word | byte }
//   quoted      '"' { byte } '"' | "'" { byte } "'"    taken as it stands, without its quotes
//   word        [ name ] { letter | digit | "_" | byte above 127 }
//
// A name, at most 10 characters at the beginning of a word, gives way to the value of the table
// field it names.
#include "expression.h"

#include <algorithm>
#include <cstring>

#include "dbf/table/table.h"
#include "internal/ascii.h"
#include "internal/restore.h"
#include "streval/streval.h"

namespace mira {

namespace {

constexpr std::size_t kNameInExpression = 10;

constexpr std::string_view kDigits = "0123456789";

bool contains(std::string_view set, char c) { return set.find(c) != std::string_view::npos; }

bool isWordByte(char c) {
    const u8 lower = lowerAscii(c);
    return (lower >= 'a' && lower <= 'z') || isDigit(c) || c == '_' || lower >= 0x80;
}

/// The name that may stand at the beginning of a word.
std::string_view candidate(std::string_view text) {
    const std::string_view name = text.substr(0, kNameInExpression);
    const auto end = std::find_if_not(name.begin(), name.end(), isWordByte);
    return name.substr(0, static_cast<std::size_t>(end - name.begin()));
}

void addByte(Expression& e, char c, bool isOperator) {
    const bool first = isOperator && e.operatorPart < 0;
    if (first) e.operatorPart = static_cast<int>(e.parts.size());
    if (first || e.parts.empty() || e.parts.back().field >= 0) e.parts.emplace_back();
    e.parts.back().literal += c;
}

void convertToOem(DbfBase* h, char* text, u32 length) {
    if (h->CharToOemCallback != nullptr) {
        h->CharToOemCallback(text, text, length);
    } else {
        CharToOemBuff(text, text, length);
    }
}

void writeValue(DbfBase* h, int field, TextOut& out) {
    const std::size_t start = out.length();
    const std::string_view value = valueText(h, field);
    out.put(value);
    if (isNumeric(h->Fields[field])) {
        if (value.find_first_of(kDigits) == std::string_view::npos) out.put('0');
    } else if (h->OemConvert != 0) {
        convertToOem(h, out.data() + start, static_cast<u32>(out.length() - start));
    }
}

/// Squeezes every run of blanks to one blank, which means the same between tokens.
void squeezeBlanks(char* text) {
    char* to = text;
    for (const char* from = text; *from != 0; ++from) {
        if (*from != ' ' || to == text || to[-1] != ' ') *to++ = *from;
    }
    *to = 0;
}

// --------------------------------------------------------------------------------------------
// Arithmetic over fields
// --------------------------------------------------------------------------------------------

/// The text with its numbers left open, and their fields. False where a value is no number.
bool writeOpen(const DbfBase* h, ExpressionParts parts, std::string* text,
               std::vector<int>* fields) {
    for (const ExpressionPart& part : parts) {
        if (part.field < 0) {
            if (contains(part.literal, kOpenNumber)) return false;
            *text += part.literal;
        } else {
            if (!isNumeric(h->Fields[part.field])) return false;
            *text += kOpenNumber;
            fields->push_back(part.field);
        }
    }
    return true;
}

}  // namespace

Expression readExpression(const DbfBase* h, std::string_view text) {
    Expression e;
    QuoteReader quotes;
    bool inWord = false;  // what follows continues a word, so no name starts there
    std::string_view rest = text;
    while (!rest.empty()) {
        const char c = rest.front();
        if (quotes.takes(c)) {
            rest.remove_prefix(1);
            continue;
        }
        const bool outside = !quotes.inside();
        if (outside && isWordByte(c) && !inWord) {
            inWord = true;
            const std::string_view name = candidate(rest);
            const int field = fieldNamed(h, name);
            if (field >= 0) {
                e.parts.push_back({{}, field});
                e.numeric = e.numeric || isNumeric(h->Fields[field]);
                rest.remove_prefix(name.size());
                continue;
            }
        }
        if (outside && !isWordByte(c)) inWord = false;
        const bool isOperator = outside && contains(kOperatorBytes, c);
        if (isOperator && e.operatorPart < 0) e.operatorPlace = text.size() - rest.size();
        addByte(e, c, isOperator);
        rest.remove_prefix(1);
    }
    return e;
}

bool isOneWord(std::string_view text) { return std::all_of(text.begin(), text.end(), isWordByte); }

std::string_view valueText(DbfBase* h, int field) {
    const bool dated = isDateOrMoment(h->Fields[field]);
    const Restore format(h->DateFormat, dated ? kDigitsFormat : h->DateFormat);
    return valueRow(h, field).render(h, field);
}

void writeParts(DbfBase* h, ExpressionParts parts, TextOut& out) {
    for (const ExpressionPart& part : parts) {
        if (part.field >= 0) {
            writeValue(h, part.field, out);
        } else {
            out.put(part.literal);
        }
    }
}

int IsFunction(const char* name) {
    return name != nullptr && (isStringFunction(name) || isNumberFunction(name)) ? 1 : 0;
}

double parseSqueezed(char* text, int* status) {
    if (std::strlen(text) > kParseLength) squeezeBlanks(text);
    return parse(text, status);
}

Arithmetic prepareArithmetic(DbfBase* h, ExpressionParts parts, bool balanced) {
    Arithmetic a;
    std::string text;
    if (!writeOpen(h, parts, &text, &a.fields)) return a;
    std::size_t squeezed = 0;
    a.longest = text.size();
    for (const int field : a.fields) {
        const std::size_t width = storedNumberWidth(h->Fields[field]) - 1;  // for one byte there
        squeezed += std::min(width, kSqueezedNumber);
        a.longest += width;
    }
    if (balanced) CheckBrackets(h, text.data());
    squeezeBlanks(text.data());
    const std::string_view open(text.c_str());
    int status = 1;
    if (a.fields.empty()) {
        a.constant = parse(text.data(), &status);
        a.way = status != 0 ? Arithmetic::Constant : Arithmetic::Fails;
    } else if (open.size() + squeezed <= kParseLength && prepareProgram(open, &a.program)) {
        a.way = a.program.steps.size() == 1 ? Arithmetic::Field : Arithmetic::Computed;
        a.field = a.fields[0];
    }
    return a;
}

Outcome computedOutcome(DbfBase* h, const Arithmetic& a, double* value) {
    double numbers[kParseLength];
    double* next = numbers;
    for (const int field : a.fields) {
        if (!storedNumber(h, field, next++)) return Outcome::Unknown;
    }
    return runProgram(a.program, numbers, value) ? Outcome::Value : Outcome::Fails;
}

}  // namespace mira
