// Values as SQLite holds them: one storage class per kind of field.
//
//   N, F without decimals   INTEGER, REAL when not whole or beyond 64 bits
//   other numbers           INTEGER for I and "+", REAL for the rest
//   C, V, M, D, T, @        TEXT
//   L                       INTEGER, 1 or 0
//   everything else         BLOB
//
// Null, a blank, and bytes that are no value are NULL.
#pragma once

#include "api.h"
#include "table/table.h"
#include "table/value.h"

namespace mira::sql {

/// "INTEGER", "REAL", "TEXT" or "BLOB".
const char* declaredType(const tool::Column& column);

/// A value of one storage class.
struct Stored {
    int type = SQLITE_NULL;  ///< SQLITE_INTEGER and so on
    i64 integer = 0;
    double real = 0;
    std::string_view bytes;  ///< of a text or a blob
};
Stored storedAs(const tool::Column& column, const tool::Value& value);

void putResult(sqlite3_context* context, const Stored& stored);

}  // namespace mira::sql
