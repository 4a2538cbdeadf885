// Calculated fields: named expressions over the fields of the current record.
//
// What comes out of an expression is arithmetic when a numeric field was among its fields, else a
// text with string functions in it.
//
// Expressions are prepared once and kept for their slots in the private state of the handle. The
// application may rewrite slots itself: what is kept counts as long as the slot has the same text,
// byte for byte, and the fields in it are described as before.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "expression.h"
#include "internal/ascii.h"
#include "internal/decimal.h"
#include "internal/file.h"

namespace mira {

namespace {

constexpr std::size_t kExpansionSize = 32768;  // an expression with its values, and a zero byte
constexpr int kNoSlot = -1;
constexpr int kSlots = kFieldMax;
constexpr unsigned kValueDecimals = 6;

constexpr std::string_view chrdigit = "+-*/() ";

/// The slot of a number when it holds a field, else null.
CalcFieldSlot* filledSlot(const DbfBase* h, int slot) {
    if (h->CalcFields == nullptr || slot < 0 || slot >= kSlots) return nullptr;
    CalcFieldSlot* const found = &h->CalcFields->Slots[slot];
    return found->Name != nullptr ? found : nullptr;
}

void clearSlot(CalcFieldSlot& slot) {
    replace(slot.Name);
    replace(slot.Expression);
    slot = {};
}

// --------------------------------------------------------------------------------------------
// Prepared slots
// --------------------------------------------------------------------------------------------

struct PreparedSlot {
    std::string text;
    int fieldCount;
    std::vector<std::pair<int, DbfField>> fields;  // of the parts, as they were described
    Expression expression;
    Arithmetic arithmetic;  // of a numeric expression
    bool digit;             // what if_digit_calci says
};
/// An evaluation holds its slot, too: hooks may change it, or all of them, meanwhile.
using HeldSlot = std::shared_ptr<const PreparedSlot>;
using PreparedSlots = std::array<HeldSlot, kSlots>;

/// Whether a numeric field is named in a text between the characters of chrdigit.
bool namesNumber(const DbfBase* h, std::string_view text) {
    while (!text.empty()) {
        const std::string_view piece = text.substr(0, text.find_first_of(chrdigit));
        int field = piece.empty() ? -1 : fieldNamed(h, piece);
        for (; field >= 0; field = fieldNamed(h, piece, field + 1)) {
            if (isNumeric(h->Fields[field])) return true;
        }
        text.remove_prefix(std::min(piece.size() + 1, text.size()));
    }
    return false;
}

PreparedSlot prepareSlot(DbfBase* h, const char* text) {
    PreparedSlot p{text, h->FieldCount, {}, readExpression(h, text), {}, namesNumber(h, text)};
    for (const ExpressionPart& part : p.expression.parts) {
        if (part.field >= 0) p.fields.emplace_back(part.field, h->Fields[part.field]);
    }
    if (p.expression.numeric) p.arithmetic = prepareArithmetic(h, p.expression.parts, false);
    return p;
}

/// Eight bytes that differ in two names are other than zero.
u64 differences(const char* a, const char* b) {
    u64 left = 0;
    u64 right = 0;
    std::memcpy(&left, a, sizeof left);
    std::memcpy(&right, b, sizeof right);
    return left ^ right;
}

/// Asked for every record, so the names are compared as words, without a call.
bool isSameField(const DbfField& a, const DbfField& b) {
    static_assert(sizeof a.Name == 4 * sizeof(u64));
    const u64 different = differences(a.Name, b.Name) | differences(a.Name + 8, b.Name + 8) |
                          differences(a.Name + 16, b.Name + 16) |
                          differences(a.Name + 24, b.Name + 24);
    return different == 0 && a.Type == b.Type && a.Length == b.Length && a.Decimals == b.Decimals;
}

bool isCurrent(const DbfBase* h, const PreparedSlot& p, const char* text) {
    if (p.fieldCount != h->FieldCount || std::strcmp(p.text.c_str(), text) != 0) return false;
    for (const auto& [field, described] : p.fields) {
        if (!isSameField(described, h->Fields[field])) return false;
    }
    return true;
}

/// What is kept for a handle; null when there is nothing.
PreparedSlots* keptSlots(const DbfBase* h) {
    if (h->Private == nullptr) return nullptr;
    return static_cast<PreparedSlots*>(h->Private->expressions.get());
}

/// The same, made when there is nothing.
PreparedSlots* keepSlots(DbfBase* h) {
    if (h->Private->expressions == nullptr) {
        const auto release = [](void* owned) { delete static_cast<PreparedSlots*>(owned); };
        h->Private->expressions = {new PreparedSlots, release};
    }
    return keptSlots(h);
}

/// Prepares a slot anew, and keeps it where that is possible. Null without memory.
[[gnu::noinline]] HeldSlot prepareAnew(DbfBase* h, int slot, const char* text) {
    try {
        HeldSlot made = std::make_shared<PreparedSlot>(prepareSlot(h, text));
        if (h->Private != nullptr) (*keepSlots(h))[static_cast<std::size_t>(slot)] = made;
        return made;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

/// The prepared expression of a slot; null when it is empty or there is no memory.
HeldSlot prepared(DbfBase* h, int slot) {
    const CalcFieldSlot* const filled = filledSlot(h, slot);
    if (filled == nullptr || filled->Expression == nullptr) return nullptr;
    if (const PreparedSlots* const all = keptSlots(h)) {
        const HeldSlot& kept = (*all)[static_cast<std::size_t>(slot)];
        if (kept != nullptr && isCurrent(h, *kept, filled->Expression)) return kept;
    }
    return prepareAnew(h, slot, filled->Expression);
}

// --------------------------------------------------------------------------------------------
// Values
// --------------------------------------------------------------------------------------------

/// Writes the values of the record into an expression. False when they do not fit the buffer.
bool expand(DbfBase* h, const PreparedSlot& p, char* buffer) {
    TextOut out(buffer, kExpansionSize);
    writeParts(h, p.expression.parts, out);
    return !out.cut();
}

std::optional<double> writtenValue(DbfBase* h, const PreparedSlot& p) {
    char buffer[kExpansionSize];
    int status = 1;
    if (!expand(h, p, buffer)) return std::nullopt;
    const double value = parseSqueezed(buffer, &status);
    return status != 0 ? std::optional(value) : std::nullopt;
}

/// None when the arithmetic fails.
std::optional<double> valueOf(DbfBase* h, const PreparedSlot& p) {
    double value = 0;
    const Outcome outcome = outcomeOf(h, p.arithmetic, &value);
    if (outcome == Outcome::Unknown) return writtenValue(h, p);
    return outcome == Outcome::Value ? std::optional(value) : std::nullopt;
}

const char* numberText(DbfBase* h, const PreparedSlot& p) {
    const std::optional<double> value = valueOf(h, p);
    if (!value) return nullptr;
    printFixed(h->TextBuffer, *value, kCalculatedWidth, kValueDecimals);
    return h->TextBuffer;
}

const char* textOf(DbfBase* h, const PreparedSlot& p) {
    char buffer[kExpansionSize];
    if (!expand(h, p, buffer)) return nullptr;
    CheckBrackets(h, buffer);
    StrEval(buffer, h);
    std::memcpy(h->TextBuffer, buffer, std::strlen(buffer) + 1);
    return h->TextBuffer;
}

}  // namespace

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
    if (h->Private != nullptr) h->Private->expressions.reset();
    std::free(h->CalcFields);
    h->CalcFields = nullptr;
}

int AddCalcField(DbfBase* h, const char* name, const char* expression) {
    if (h->CalcFields == nullptr || name == nullptr || expression == nullptr) return 0;
    for (int i = h->FieldCount; i < kSlots; ++i) {
        CalcFieldSlot& slot = h->CalcFields->Slots[i];
        if (slot.Name != nullptr) continue;
        Owned<char> nameCopy = copyText(name);
        Owned<char> expressionCopy = copyText(expression);
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
    if (PreparedSlots* const kept = keptSlots(h)) (*kept)[static_cast<std::size_t>(slot)].reset();
    --h->CalcFields->Count;
}

int GetCalcI(DbfBase* h, const char* name) {
    if (name == nullptr) return kNoSlot;
    for (int i = h->FieldCount; i < kSlots; ++i) {
        const CalcFieldSlot* const filled = filledSlot(h, i);
        if (filled != nullptr && sameIgnoringCase(filled->Name, name)) return i;
    }
    return kNoSlot;
}

char if_digit_calc(DbfBase* h, const char* name) { return if_digit_calci(h, GetCalcI(h, name)); }

char if_digit_calci(DbfBase* h, int slot) {
    const HeldSlot p = prepared(h, slot);
    return p != nullptr && p->digit ? 1 : 0;
}

const char* GetCalcString(DbfBase* h, const char* name) {
    return GetCalcStringI(h, GetCalcI(h, name));
}

const char* GetCalcStringI(DbfBase* h, int slot) {
    const HeldSlot p = prepared(h, slot);
    if (p == nullptr) return nullptr;
    return p->expression.numeric ? numberText(h, *p) : textOf(h, *p);
}

double GetCalcValue(DbfBase* h, const char* name) { return GetCalcValueI(h, GetCalcI(h, name)); }

double GetCalcValueI(DbfBase* h, int slot) {
    const HeldSlot p = prepared(h, slot);
    return p != nullptr && p->expression.numeric ? valueOf(h, *p).value_or(0.0) : 0.0;
}

int makecalcstring(DbfBase* h, const char* expression, char* output, int* numeric) {
    *numeric = 0;
    TextOut out(output, kExpansionSize);
    try {
        const Expression e = readExpression(h, expression);
        const ExpressionParts parts = e.parts;
        *numeric = e.numeric ? 1 : 0;
        const auto split = static_cast<std::size_t>(std::max(e.operatorPart, 0));
        writeParts(h, parts.first(split), out);
        const int position = e.operatorPart < 0 ? -1 : static_cast<int>(out.length());
        writeParts(h, parts.subspan(split), out);
        return position;
    } catch (const std::bad_alloc&) {
        return -1;
    }
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
