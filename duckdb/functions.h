// The functions that the extension adds. Each throws nothing; false when DuckDB refuses it.
#pragma once

#include <memory>

#include "duckdb/api.h"
#include "duckdb/warnings.h"

namespace mira::duck {

using SharedWarnings = std::shared_ptr<Warnings>;

/// read_dbf(tables, ...): the records of tables.
bool addReader(duckdb_connection connection, const SharedWarnings& warnings);
/// dbf_info(tables): a line for each table, without reading records.
bool addInfo(duckdb_connection connection);
/// dbf_warnings(): what the last reads met.
bool addWarnings(duckdb_connection connection, const SharedWarnings& warnings);

}  // namespace mira::duck
