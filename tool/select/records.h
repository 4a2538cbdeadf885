// All records of a table, one after the other.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

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

/// For work that reads all records of a table, once or more often, and calls this after each: moves
/// a bar, one per pass, and leaves on Ctrl-C.
inline std::function<void()> watchPasses(const Table& table) {
    struct Pass {
        std::string path;
        u32 count = 0, done = 0;
        std::optional<Progress> progress{};
    };
    const auto pass = std::make_shared<Pass>();
    pass->path = table.path;
    pass->count = table.base->Header.RecordCount;
    return [pass] {
        leaveIfStopped();
        if (!pass->progress) pass->progress.emplace(pass->path, pass->count);
        pass->progress->add(1);
        if (++pass->done < pass->count) return;
        pass->done = 0;
        pass->progress.reset();
    };
}

}  // namespace mira::tool
