// The values of table fields, by field number: callers have made sure that it names one.
#pragma once

#include <cstddef>
#include <string_view>

#include "mira.h"

namespace mira {

// text.cpp
/// The field as text, in TextBuffer.
const char* renderField(DbfBase*, int field);

// dates.cpp
/// Renders a D, T or "@" field into TextBuffer.
void renderDate(DbfBase*, int field);

// numbers.cpp
/// The value of a numeric field, 0.0 for any other.
double fieldValue(DbfBase*, int field);

// stored.cpp: what rendering a value and reading its text would lead to, told without either.
/// The number that the text of a numeric field stands for in arithmetic: one token, behind a minus
/// when its sign bit is set, and blanks. False where only the text can tell.
bool storedNumber(DbfBase*, int field, double*);
/// Characters of that text at most; no more than kSqueezedNumber without superfluous blanks.
std::size_t storedNumberWidth(const DbfField&);
inline constexpr std::size_t kSqueezedNumber = 24;
/// The text of a D, T or "@" field in kDigitsFormat. False where it has to be rendered.
bool storedDate(const DbfBase*, int field, std::string_view*);

// stores.cpp
/// Stores text or number, whichever the type takes; memo fields are left alone.
void storeField(DbfBase*, int field, const char* text, double number);

}  // namespace mira
