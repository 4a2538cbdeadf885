// What takes the number of any field: table fields go to their values and memos, numbers from
// FieldCount on to the calculated fields.
#include "dbf/table/table.h"
#include "dbf/value/value.h"
#include "internal/convert.h"

namespace mira {

namespace {

/// number above 0 is a byte count, so that a memo may hold zero bytes.
void setMemoValue(DbfBase* h, int field, const char* text, double number) {
    const auto slot = static_cast<u32>(field);
    if (number > 0) {
        SetMemoBuf(h, slot, text, static_cast<u32>(clampToI32(number)));
    } else {
        SetMemo(h, slot, text);
    }
}

}  // namespace

char if_digit_type(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    if (f != nullptr) return isNumeric(*f) ? 1 : 0;
    return field < 0 ? 0 : if_digit_calci(h, field);
}

const char* GetStr(DbfBase* h, int field) {
    if (tableField(h, field) != nullptr) return valueRow(h, field).render(h, field);
    return field >= 0 ? GetCalcStringI(h, field) : renderNothing(h, field);
}

double GetValue(DbfBase* h, int field) {
    if (tableField(h, field) != nullptr) return valueRow(h, field).number(h, field);
    return field >= 0 && if_digit_calci(h, field) != 0 ? GetCalcValueI(h, field) : 0.0;
}

i32 GetSign(DbfBase* h, int field) {
    // Unlike GetValue, without a question whether a calculated field is numeric.
    const bool inTable = tableField(h, field) != nullptr;
    const double value = inTable      ? valueRow(h, field).number(h, field)
                         : field >= 0 ? GetCalcValueI(h, field)
                                      : 0.0;
    return value > 0 ? 1 : value < 0 ? -1 : 0;
}

void SetValue(DbfBase* h, int field, const char* text, double number) {
    if (if_memo_type(h, field) != 0) {
        setMemoValue(h, field, text, number);
    } else if (tableField(h, field) != nullptr) {
        valueRow(h, field).store(h, field, text, number);
    }
}

}  // namespace mira
