// One row per class of values: how they become text and numbers, and how they are stored.
#include "dbf/value/value.h"

#include <cstdlib>

#include "internal/convert.h"

namespace mira {
namespace {

double noNumber(DbfBase* /*h*/, int /*field*/) { return 0.0; }

double integerNumber(DbfBase* h, int field) { return static_cast<i32>(GetInt(h, field)); }

void storeNothing(DbfBase* /*h*/, int /*field*/, const char* /*text*/, double /*number*/) {}

template <void (*Set)(DbfBase*, int, const char*)>
void storeText(DbfBase* h, int field, const char* text, double /*number*/) {
    if (text != nullptr) Set(h, field, text);
}

template <void (*Set)(DbfBase*, int, double)>
void storeNumber(DbfBase* h, int field, const char* /*text*/, double number) {
    Set(h, field, number);
}

void setLogical(DbfBase* h, int field, const char* text) { SetLogical(h, field, text[0]); }

/// Truncated toward zero; 0 for what 32 bits cannot hold.
void setInteger(DbfBase* h, int field, double number) {
    const bool fits = number >= -2147483648.0 && number <= 2147483647.0;
    SetInt(h, field, static_cast<u32>(fits ? clampToI32(number) : 0));
}

constexpr ValueRow rowOf(ValueClass value) {
    switch (value) {
        case ValueClass::None:
            return {renderNothing, noNumber, storeNothing};
        case ValueClass::Text:
            return {renderText, noNumber, storeText<SetString>};
        case ValueClass::System:
            return {renderText, noNumber, storeNothing};
        case ValueClass::Logical:
            return {renderLogical, noNumber, storeText<setLogical>};
        case ValueClass::Date:
            return {renderDate, noNumber, storeText<SetDateS>};
        case ValueClass::Moment:
            return {renderMoment, noNumber, storeText<SetDateTimeS>};
        case ValueClass::Decimal:
            return {renderDecimal, GetFloat, storeNumber<SetFloat>};
        case ValueClass::Integer:
            return {renderInteger, integerNumber, storeNumber<setInteger>};
        case ValueClass::Ordered:
            return {renderOrdered, GetInvertedDouble, storeNumber<SetInvertedDouble>};
        case ValueClass::Currency:
            return {renderCurrency, GetCurrency, storeNumber<SetCurrency>};
        case ValueClass::BinaryOrDouble:
            return {renderBinaryOrDouble, GetDouble, storeNumber<SetDouble>};
        case ValueClass::Memo:
            return {renderMemo, noNumber, storeNothing};
    }
    std::abort();  // which is not constant: a class without a row does not compile
}

}  // namespace

constexpr std::array<ValueRow, 256> kValueRows = [] {
    std::array<ValueRow, 256> rows{};
    for (std::size_t letter = 0; letter < rows.size(); ++letter) {
        rows[letter] = rowOf(typeRow(static_cast<char>(letter)).value);
    }
    return rows;
}();

}  // namespace mira
