// Arrays as DuckDB's vectors.
#pragma once

#include "arrow/plan.h"
#include "arrow/vector.h"
#include "duckdb/api.h"

namespace mira::duck {

/// Declares a column with the type of a field.
void declareColumn(duckdb_bind_info info, const arrow::Field& field);
/// Puts the entries of an array, at most as many as a vector has, into a vector.
void putColumn(const arrow::Field& field, arrow::Vector& from, duckdb_vector to);
/// A text or bytes, of less than 4 GiB.
void putText(duckdb_vector to, idx_t row, std::string_view text);
/// Makes the entry null.
void putNull(duckdb_vector to, idx_t row);

}  // namespace mira::duck
