// Values as a database holds them: one storage class for every kind of field.
//
//   N, F without decimals   integer, real when not whole or beyond 64 bits
//   I, "+", L               integer
//   other numbers           real
//   C, V, M, D, T, @        text
//   everything else         blob
//
// Null, a blank, and bytes that are no value are null. With TableOptions::exact, columns whose
// numbers may have more digits than a double keeps are text.
#pragma once

#include <string>
#include <string_view>

#include "tables/value/value.h"

namespace mira::tables {

/// A value of one storage class; bytes last as long as those of the value it was made from.
struct Stored {
    Storage storage = Storage::Null;
    i64 integer = 0;
    double real = 0;
    std::string_view bytes{};  ///< of a text or a blob; never a null view
    bool rounded = false;      ///< the digits of the value say more than real does
};
Stored storedAs(const Column& column, const Value& value);

/// Whether a column may hold numbers that are neither whole numbers of 64 bits nor kept by a double
/// to their last digit.
bool mayBeRounded(const Column& column);

/// The class that a column is declared with.
Storage declaredStorage(const Column& column);
/// Its name in SQL.
const char* storageName(Storage storage);
/// A name or a text in SQL.
std::string quotedBy(char quote, std::string_view text);
inline std::string quotedName(std::string_view name) { return quotedBy('"', name); }
inline std::string quotedText(std::string_view text) { return quotedBy('\'', text); }

}  // namespace mira::tables
