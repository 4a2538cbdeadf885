// Calculated fields: named expressions over the fields of the current record.
//
//   expression  { quoted | word | byte }
//   quoted      '"' { byte } '"' | "'" { byte } "'"    taken as it stands, without its quotes
//   word        [ name ] { letter | digit | "_" | byte above 127 }
//
// A name, at most 10 characters at the beginning of a word, gives way to the value of the table
// field it names. What comes out is arithmetic when a numeric field was among them, else a text
// with string functions in it.
#include "calcfld.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "dbf/table/table.h"
#include "dbf/value/value.h"
#include "internal/ascii.h"
#include "internal/decimal.h"
#include "internal/file.h"
#include "internal/restore.h"

namespace mira {

namespace {

constexpr std::size_t kNameLength = 10;
constexpr std::size_t kParseLength = 79;  // characters that parse takes
constexpr int kNoSlot = -1;
constexpr unsigned kValueDecimals = 6;

constexpr std::string_view chrdigit = "+-*/() ";
constexpr std::string_view quotes = "\"'";
constexpr std::string_view kOperators = "><=~^+-/*()";
constexpr std::string_view kDigits = "0123456789";

bool contains(std::string_view set, char c) { return set.find(c) != std::string_view::npos; }

bool isWordByte(char c) {
    const u8 lower = lowerAscii(c);
    return (lower >= 'a' && lower <= 'z') || (c >= '0' && c <= '9') || c == '_' || lower >= 0x80;
}

/// The name that may stand at the beginning of a word.
std::string_view candidate(std::string_view text) {
    const std::string_view name = text.substr(0, kNameLength);
    const auto end = std::find_if_not(name.begin(), name.end(), isWordByte);
    return name.substr(0, static_cast<std::size_t>(end - name.begin()));
}

void convertToOem(DbfBase* h, char* text, u32 length) {
    if (h->CharToOemCallback != nullptr) {
        h->CharToOemCallback(text, text, length);
    } else {
        CharToOemBuff(text, text, length);
    }
}

/// The slot of a number when it holds a field, else null.
CalcFieldSlot* filledSlot(const DbfBase* h, int slot) {
    if (h->CalcFields == nullptr || slot < 0 || slot >= static_cast<int>(kFieldMax)) return nullptr;
    CalcFieldSlot* const found = &h->CalcFields->Slots[slot];
    return found->Name != nullptr ? found : nullptr;
}

void clearSlot(CalcFieldSlot& slot) {
    std::free(slot.Name);
    std::free(slot.Expression);
    slot = {};
}

/// Expands the expression of a slot; false when there is none or it does not fit the buffer.
bool expandSlot(DbfBase* h, int slot, char* buffer, int* numeric) {
    const CalcFieldSlot* const filled = filledSlot(h, slot);
    if (filled == nullptr) return false;
    TextOut out(buffer, kExpansionSize);
    expandExpression(h, filled->Expression, out, numeric);
    return !out.cut();
}

/// Squeezes every run of blanks to one blank, which means the same between tokens.
void squeezeBlanks(char* text) {
    char* to = text;
    for (const char* from = text; *from != 0; ++from) {
        if (*from != ' ' || to == text || to[-1] != ' ') *to++ = *from;
    }
    *to = 0;
}

/// The text of a table field; dates as digits that begin with the year.
std::string_view valueText(DbfBase* h, int field) {
    const bool dated = isDateOrMoment(h->Fields[field]);
    const Restore format(h->DateFormat, dated ? kDigitsFormat : h->DateFormat);
    return valueRow(h, field).render(h, field);
}

}  // namespace

bool readItem(ExpressionReader& r, ExpressionItem* item) {
    while (!r.rest.empty()) {
        const char c = r.rest.front();
        const bool outside = r.quote == 0;
        if (outside ? contains(quotes, c) : c == r.quote) {
            r.quote = outside ? c : '\0';
            r.rest.remove_prefix(1);
            continue;
        }
        if (outside && isWordByte(c) && !r.inWord) {
            r.inWord = true;
            const std::string_view name = candidate(r.rest);
            const int field = fieldNamed(r.base, name);
            if (field >= 0) {
                r.rest.remove_prefix(name.size());
                *item = {ExpressionItem::Field, 0, field};
                return true;
            }
        }
        if (outside && !isWordByte(c)) r.inWord = false;
        r.rest.remove_prefix(1);
        const bool isOperator = outside && contains(kOperators, c);
        *item = {isOperator ? ExpressionItem::Operator : ExpressionItem::Byte, c, -1};
        return true;
    }
    return false;
}

void putFieldValue(DbfBase* h, int field, TextOut& out) {
    const std::size_t start = out.length();
    const std::string_view value = valueText(h, field);
    out.put(value);
    if (isNumeric(h->Fields[field])) {
        if (value.find_first_of(kDigits) == std::string_view::npos) out.put('0');
    } else if (h->OemConvert != 0) {
        convertToOem(h, out.data() + start, static_cast<u32>(out.length() - start));
    }
}

int expandExpression(DbfBase* h, std::string_view expression, TextOut& out, int* numeric) {
    int position = -1;
    *numeric = 0;
    ExpressionReader reader{h, expression};
    for (ExpressionItem item{}; readItem(reader, &item);) {
        if (item.kind == ExpressionItem::Field) {
            putFieldValue(h, item.field, out);
            *numeric |= isNumeric(h->Fields[item.field]) ? 1 : 0;
            continue;
        }
        if (item.kind == ExpressionItem::Operator && position < 0) {
            position = static_cast<int>(out.length());
        }
        out.put(item.byte);
    }
    return position;
}

double parseSqueezed(char* text, int* status) {
    if (std::strlen(text) > kParseLength) squeezeBlanks(text);
    return parse(text, status);
}

int GetMemCalcField(DbfBase* h) {
    if (h == nullptr) return 0;
    auto* const table = static_cast<CalcFieldTable*>(std::calloc(1, sizeof(CalcFieldTable)));
    if (table == nullptr) return 0;
    FreeMemCalcField(h);
    h->CalcFields = table;
    return 1;
}

void FreeMemCalcField(DbfBase* h) {
    if (h == nullptr || h->CalcFields == nullptr) return;
    for (CalcFieldSlot& slot : h->CalcFields->Slots) clearSlot(slot);
    std::free(h->CalcFields);
    h->CalcFields = nullptr;
}

int AddCalcField(DbfBase* h, const char* name, const char* expression) {
    if (h->CalcFields == nullptr || name == nullptr || expression == nullptr) return 0;
    for (int i = h->FieldCount; i < static_cast<int>(kFieldMax); ++i) {
        CalcFieldSlot& slot = h->CalcFields->Slots[i];
        if (slot.Name != nullptr) continue;
        Block<char> nameCopy = copyText(name);
        Block<char> expressionCopy = copyText(expression);
        if (!nameCopy || !expressionCopy) return 0;
        slot = {{1, 1, 1}, nameCopy.release(), expressionCopy.release()};
        ++h->CalcFields->Count;
        return 1;
    }
    return 0;
}

void DelCalcField(DbfBase* h, const char* name) { DelCalcFieldI(h, GetCalcI(h, name)); }

void DelCalcFieldI(DbfBase* h, int slot) {
    CalcFieldSlot* const filled = filledSlot(h, slot);
    if (filled == nullptr || h->CalcFields->Count == 0) return;
    clearSlot(*filled);
    --h->CalcFields->Count;
}

int GetCalcI(DbfBase* h, const char* name) {
    if (name == nullptr) return kNoSlot;
    for (int i = h->FieldCount; i < static_cast<int>(kFieldMax); ++i) {
        const CalcFieldSlot* const filled = filledSlot(h, i);
        if (filled != nullptr && sameIgnoringCase(filled->Name, name)) return i;
    }
    return kNoSlot;
}

char if_digit_calc(DbfBase* h, const char* name) { return if_digit_calci(h, GetCalcI(h, name)); }

char if_digit_calci(DbfBase* h, int slot) {
    const CalcFieldSlot* const filled = filledSlot(h, slot);
    if (filled == nullptr) return 0;
    std::string_view rest = filled->Expression;
    while (!rest.empty()) {
        const std::string_view piece = rest.substr(0, rest.find_first_of(chrdigit));
        int field = piece.empty() ? -1 : fieldNamed(h, piece);
        for (; field >= 0; field = fieldNamed(h, piece, field + 1)) {
            if (isNumeric(h->Fields[field])) return 1;
        }
        rest.remove_prefix(std::min(piece.size() + 1, rest.size()));
    }
    return 0;
}

const char* GetCalcString(DbfBase* h, const char* name) {
    return GetCalcStringI(h, GetCalcI(h, name));
}

const char* GetCalcStringI(DbfBase* h, int slot) {
    char buffer[kExpansionSize];
    int numeric = 0;
    if (!expandSlot(h, slot, buffer, &numeric)) return nullptr;
    if (numeric != 0) {
        const double value = parseSqueezed(buffer, &numeric);
        if (numeric == 0) return nullptr;
        printFixed(h->TextBuffer, value, kCalculatedWidth, kValueDecimals);
        return h->TextBuffer;
    }
    CheckBrackets(h, buffer);
    StrEval(buffer, h);
    std::memcpy(h->TextBuffer, buffer, std::strlen(buffer) + 1);
    return h->TextBuffer;
}

double GetCalcValue(DbfBase* h, const char* name) { return GetCalcValueI(h, GetCalcI(h, name)); }

double GetCalcValueI(DbfBase* h, int slot) {
    char buffer[kExpansionSize];
    int numeric = 0;
    if (!expandSlot(h, slot, buffer, &numeric) || numeric == 0) return 0.0;
    return parseSqueezed(buffer, &numeric);  // 0.0 when it fails
}

int makecalcstring(DbfBase* h, const char* expression, char* output, int* numeric) {
    TextOut out(output, kExpansionSize);
    return expandExpression(h, expression, out, numeric);
}

void CheckBrackets(DbfBase* h, char* text) {
    if (h->NoBracketCheck == 1) return;
    i64 surplus = 0;
    char* end = text;
    for (; *end != 0; ++end) surplus += *end == '(' ? 1 : *end == ')' ? -1 : 0;
    const char* start = text;
    for (; surplus > 0 && *start == '('; --surplus) ++start;
    for (; surplus < 0 && end != text && end[-1] == ')'; ++surplus) --end;
    const auto length = static_cast<std::size_t>(end - start);
    std::memmove(text, start, length);
    text[length] = 0;
}

}  // namespace mira
