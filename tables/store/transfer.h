// Values of one table into another: read by the rules of the one, checked and encoded by those of
// the other.
#pragma once

#include <string>

#include "tables/store/store.h"
#include "tables/value/value.h"

namespace mira::tables {

/// What happens to a null, or a blank, for which the field has no place.
enum class Nothing : u8 {
    Blank,   ///< it becomes a blank, or 0, as it does in a new record
    Misfits  ///< that is a reason
};

/// Reads a column of the record in the reader's table and encodes the value for a new record of
/// another table. Empty when it fits; else why it does not, in words that follow "FIELD: ". A value
/// that is none, or a memo that cannot be read, is a reason, too.
std::string transferValue(CellReader& from, const Column& source, Table& table,
                          const Column& column, Nothing nothing, Encoded& encoded);

}  // namespace mira::tables
