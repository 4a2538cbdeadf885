// The values of table fields, by field number: callers have made sure that it names one.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

#include "dbf/table/types.h"
#include "mira.h"

namespace mira {

/// What is done with the values of one class.
struct ValueRow {
    /// The value as text, in TextBuffer, which is the result.
    const char* (*render)(DbfBase*, int field);
    /// 0.0 for what is no number.
    double (*number)(DbfBase*, int field);
    /// Stores text or number, whichever the class takes; memo fields are left alone.
    void (*store)(DbfBase*, int field, const char* text, double number);
};

/// value.cpp: the rows by type letter, so that rendering a field is one jump.
extern const std::array<ValueRow, 256> kValueRows;

inline const ValueRow& valueRow(const DbfBase* h, int field) {
    return kValueRows[static_cast<u8>(h->Fields[field].Type)];
}

// text.cpp
inline constexpr unsigned kOrderedDecimals = 8;  // of ordered doubles
const char* renderNothing(DbfBase*, int field);
const char* renderText(DbfBase*, int field);
const char* renderLogical(DbfBase*, int field);
const char* renderDecimal(DbfBase*, int field);
const char* renderInteger(DbfBase*, int field);
const char* renderOrdered(DbfBase*, int field);
const char* renderCurrency(DbfBase*, int field);
const char* renderBinaryOrDouble(DbfBase*, int field);
const char* renderMemo(DbfBase*, int field);

// dates.cpp
const char* renderDate(DbfBase*, int field);
const char* renderMoment(DbfBase*, int field);

// stored.cpp: what rendering a value and reading its text would lead to, told without either.
/// The number that the text of a numeric field stands for in arithmetic: one token, after a minus
/// when its sign bit is set, and blanks. False where only the text can tell.
/// (An optional in its place costs filters 7%.)
bool storedNumber(DbfBase*, int field, double*);
/// Characters of that text at most; no more than kSqueezedNumber without superfluous blanks.
std::size_t storedNumberWidth(const DbfField&);
inline constexpr std::size_t kSqueezedNumber = 24;
/// The text of a date or moment in kDigitsFormat. None where it has to be rendered.
std::optional<std::string_view> storedDate(DbfBase*, int field);

}  // namespace mira
