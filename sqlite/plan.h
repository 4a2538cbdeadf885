// How a scan is planned: which conditions it tests, what it costs.
#pragma once

#include <vector>

#include "api.h"
#include "columns.h"
#include "shortcut.h"

namespace mira::sql {

struct PlanTable {
    const Columns& columns;
    u32 records;
    bool utf8;      ///< texts of the database are UTF-8, so that BINARY is their order byte by byte
    bool patterns;  ///< LIKE and GLOB are conditions on rows of this table; see keepsOnTerms
    bool rowLists;  ///< an `=` may stand for a part of (A, B) IN (...)
};
/// Whether SQLite hands over LIKE and GLOB only where they decide about the rows of the table.
/// Before 3.51 it does so also for those that stand in the ON of an outer join from that table,
/// where rows that fail them stay.
bool keepsOnTerms();
/// xBestIndex. An SQLite result.
int choosePlan(const PlanTable& table, sqlite3_index_info* info);
/// The conditions of the plan that xFilter is given.
std::vector<Condition> readPlan(const char* plan);

}  // namespace mira::sql
