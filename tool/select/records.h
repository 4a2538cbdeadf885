// All records of a table, one after the other.
#pragma once

#include "tables.h"
#include "tables/column/column.h"
#include "terminal/progress.h"
#include "terminal/status.h"

namespace mira::tool {

/// Reads the records of a table one by one, deleted ones, too, and calls take with the number of
/// each, from 0 or first on. Throws a Refusal, or Stopped.
template <typename Take>
void eachRecord(const Table& table, Take take, u32 first = 0) {
    const u32 count = table.base->Header.RecordCount;
    Progress progress(table.path, count - first);
    for (u32 record = first; record < count; ++record) {
        leaveIfStopped();
        readRecord(table, record);
        take(record);
        progress.add(1);
    }
}

}  // namespace mira::tool
