// Whether the tags of an index file agree with their table.
#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "tables/column/column.h"
#include "tables/index/index.h"

namespace mira::tables {

/// How many records, and the lowest of their numbers, from 1.
struct Records {
    u64 count = 0;
    u32 first = 0;
    void add(u32 record) { first = count++ == 0 ? record : std::min(first, record); }
};

/// What a tag and its table differ in.
struct TagReport {
    std::string notComputed{};  ///< why nothing was compared; no finding
    u64 keys = 0;               ///< entries
    Records missing{};          ///< records that have no entry
    Records tooMany{};          ///< entries without a record, or a second one for it
    Records otherKeys{};        ///< records with another key now
    Records unordered{};        ///< entries before which a larger key stands
    bool agrees() const {
        return missing.count + tooMany.count + otherKeys.count + unordered.count == 0;
    }
    /// But for records that are missing or too many: the keys are made as this library makes them.
    bool isSameRule() const { return otherKeys.count + unordered.count == 0; }
};

/// Compares the tags of a file, for which the table is read once (a very large one once for some of
/// them); overwrites RecordBuffer. step is called after every record and may throw. Throws a
/// Refusal for a damaged index file.
std::vector<TagReport> compareTags(const Table& table, const IndexFile& file,
                                   const std::function<void()>& step = {});

/// Entries of a tag, counted along its pages.
u64 countKeys(const IndexFile& file, const Tag& tag);

/// "2 records missing, first 12; 3 too many, first 4", or why nothing was compared; empty when all
/// agrees.
std::string sentenceOf(const TagReport& report);

}  // namespace mira::tables
