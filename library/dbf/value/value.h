// The values of table fields, by field number: callers have made sure that it names one.
#pragma once

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

// stores.cpp
/// Stores text or number, whichever the type takes; memo fields are left alone.
void storeField(DbfBase*, int field, const char* text, double number);

}  // namespace mira
