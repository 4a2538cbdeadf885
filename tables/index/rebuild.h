// Whether an index file may be made anew, and its being made so by the journal of a change.
#pragma once

#include <functional>
#include <string>

#include "tables/change/newindex.h"
#include "tables/column/column.h"
#include "tables/index/index.h"

namespace mira::tables {

/// Why a file cannot be rebuilt, in words that follow its name: another kind of file, a tag that
/// cannot be computed, or keys that are not this library's, neither of the table as it is nor of
/// one of its backups. Empty when it can. anyway overrides the last, for which nothing is read
/// then. Overwrites RecordBuffer. step is called after every record and may throw. Throws a Refusal
/// for a damaged file.
std::string whyNotRebuilt(const Table& table, const IndexFile& file, bool anyway,
                          const std::function<void()>& step = {});

/// The index of a file that may be rebuilt, for a change of its table. A handle of its own reads
/// the table, of which path and code page are taken here.
IndexPlan planOf(const Table& table, IndexFile file, const std::function<void()>& step = {});

/// What a change of the table has to make anew, through handles of its own: the index file beside
/// it; nothing where there is none. Throws a Refusal when there is one that cannot be rebuilt.
IndexPlan planReindex(const Table& table, const std::function<void()>& step = {});

}  // namespace mira::tables
