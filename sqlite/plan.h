// How a scan is planned: which conditions it tests, what it costs.
#pragma once

#include <vector>

#include "api.h"
#include "shortcut.h"

namespace mira::sql {

constexpr int kHiddenColumns = 2;  // _record, _deleted: the last ones

struct PlanTable {
    const std::vector<tables::Column>* columns;
    u32 records;
    bool utf8;  ///< texts of the database are UTF-8, so that BINARY is their order byte by byte
};
/// xBestIndex. An SQLite result.
int choosePlan(const PlanTable& table, sqlite3_index_info* info);
/// The conditions of the plan that xFilter is given.
std::vector<Condition> readPlan(const char* plan);

}  // namespace mira::sql
