// Damage in a memo file and in the references to it.
#pragma once

#include <vector>

#include "check/damage.h"
#include "tables.h"
#include "tables/value/value.h"

namespace mira::tool {

/// The references to memos of a table, gathered record by record.
struct MemoReferences {
    std::vector<const Column*> columns{};  // those that refer
    /// Block in the upper 31 bits; below it record * columns + column.
    std::vector<u64> places{};
    u64 count = 0;  // also those that lead nowhere
};
MemoReferences memoReferencesOf(const Table& table);

/// Adds those of the current record; reports what is none or leads out of the memo file.
void addReferences(MemoReferences& references, CellReader& cells, const Report& report);
/// Reports what is wrong where they lead to. Overwrites the record buffer.
void checkMemos(MemoReferences& references, CellReader& cells, Faults& faults,
                const Report& report);

}  // namespace mira::tool
