// What is wrong with a table: everything that makes a value, a record or a memo doubtful, found by
// reading it once from beginning to end.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "tables.h"
#include "tables/column/column.h"

namespace mira::tool {

struct Finding {
    bool isNote = false;  // worth knowing, but nothing is lost
    u64 record = 0;       // from 1; 0: the table as a whole
    std::string field{};  // empty: the record as a whole
    std::string what{};   // may hold control characters of the table
    bool loses = false;   // packing would lose or cut the memo
};
/// "stock.dbf: record 3, field PRICE: no number: \"***\""
std::string lineOf(const Table& table, const Finding& finding);
using Report = std::function<void(const Finding&)>;

/// Reports header, records, then memos; with jobs threads, 0 for as many as there are processors,
/// of which the caller's alone reports. Memory is that of the references to memos, 8 bytes each,
/// and of the longest memo. Throws a Refusal when a record cannot be read, or Stopped.
void checkTable(Table& table, const Report& report, unsigned jobs);

}  // namespace mira::tool
