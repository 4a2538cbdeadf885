// The records of a table in another structure, written into the new files of a swap.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tables/change/swap.h"
#include "tables/column/column.h"

namespace mira::tables {

/// Where the value of a new field comes from.
struct FieldSource {
    int field = kNoField;  ///< of the old table; kNoField: it is blank
    bool same = false;     ///< its bytes stay as they are; of a memo those in the memo file
};

struct Alteration {
    std::string head;                  ///< of the new table: header, descriptors and what follows
    std::vector<FieldSource> sources;  ///< one per field; those behind them are blank
    std::string codePage;              ///< of the new table
    u32 memoUnit = 0;                  ///< bytes per block of the new memo file; 0: the usual
};

/// Told of every value that does not fit, and is blank then: record from 0, old column, why.
using TellMisfit = std::function<void(u32, const Column&, const std::string&)>;

/// Writes all records, marks and memos to the new files of a swap. Counting fields keep their next
/// values. step is called after every record and may throw. Returns the file name that the new memo
/// file has to take; empty without one. Throws a Refusal.
std::string alterInto(Table& table, const Alteration& alteration, const Swap& swap,
                      const TellMisfit& misfit, const std::function<void()>& step);

}  // namespace mira::tables
