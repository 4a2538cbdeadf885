// An index file that is made anew along with a change of its table, or alone.
//
// It is built beside the old one from the table as the change leaves it, and takes its name by the
// journal of the change, so that neither is ever there without the other.
#pragma once

#include <functional>
#include <string>

#include "tables/change/journal.h"
#include "tables/change/names.h"
#include "tables/column/column.h"

namespace mira::tables {

/// What is to be built.
struct IndexPlan {
    std::string name{};  ///< its file name, beside the table; empty: nothing
    /// Writes it for a table file as that is by then. Throws a Refusal.
    std::function<void(const std::string& table, int descriptor)> write{};
};

/// Builds it under the name of a new file, from a table file, brings it to the disk, and adds it to
/// the journal. Throws a Refusal.
void buildIndex(const ChangeNames& names, const IndexPlan& plan, const std::string& table,
                JournalWriter& journal);
/// Has it take its name; it may have done so. False when that cannot be done now.
bool placeIndex(const ChangeNames& names, const std::string& name);
/// Whether the index file that is there is the one whose place the new one is to take, or the new
/// one has taken it.
bool mayPlaceIndex(const ChangeNames& names, const OldIndex& old);

/// The change is done; says so in the journal, and ends it once the new index has its place. False
/// when it is not done and is to be undone. Throws a Refusal when recovery has to go on.
bool finishIndex(const ChangeNames& names, JournalWriter& journal, const std::string& name);

/// Builds the index of a table that is locked and otherwise stays as it is. Throws a Refusal; the
/// old one is there then.
void renewIndex(const Table& table, const IndexPlan& plan);

}  // namespace mira::tables
