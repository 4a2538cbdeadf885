// What can be saved of a damaged table, into a new one that is sound. The damaged files are only
// read.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tables/column/column.h"
#include "tables/rescue/layout.h"
#include "tables/rescue/source.h"

namespace mira::tables {

/// Something to be told of the new table.
struct Spot {
    enum class Is : u8 {
        Table,    ///< about it as a whole
        Shifted,  ///< records that lie elsewhere than those before them
        Doubtful,
        LeftOut,  ///< bytes that are no record
        Value,    ///< one that was none and is blank now: its record is doubtful
        MemoDoubtful,
        MemoLost,
    };
    Is is = Is::Table;
    u64 place = 0, bytes = 0;  ///< in the damaged file
    u32 record = 0;            ///< first record of the new table, from 1
    u32 count = 0;             ///< records
    std::string field{};
    std::string what{};  ///< a sentence; may hold control characters of the table
};

struct Rescued {
    u64 expected = 0;  ///< records that the table had, as far as that can be told
    u64 saved = 0, shifted = 0, doubtful = 0;
    u64 memos = 0, memosDoubtful = 0, memosLost = 0;
    u64 leftOut = 0;  ///< bytes
    bool whole() const {
        return saved >= expected && doubtful == 0 && memosDoubtful == 0 && memosLost == 0 &&
               leftOut == 0;
    }
};

/// A damaged table, and how it is read.
struct Damaged {
    std::unique_ptr<Source> source{};
    Layout layout{};
    bool isText = false;  ///< it has come through a transfer as text, which is undone
};
/// Looks how a table is to be read. like: an open table that has its fields; null: by its own
/// header. step: called every now and then; may throw. Throws a Refusal when nothing can be saved.
Damaged examine(
    const std::string& path, const Table* like, const std::function<void()>& step = [] {});
/// How often rescue will pass a record, for a bar.
u64 passesOf(const Damaged& damaged);

/// Lays a new table without records; nothing may be there yet. Throws a Refusal.
void layTable(const std::string& path, const std::string& head);

struct RescueHooks {
    std::function<void(const Spot&)> tell = [](const Spot&) {};
    /// The bytes of what is doubtful or left out.
    std::function<void(std::string_view)> keep = [](std::string_view) {};
    /// Called every now and then with the number of records passed since; may throw.
    std::function<void(u32 records)> step = [](u32) {};
};

/// Writes the records of a damaged table, and their memos, to a new one without records, which is
/// open for writing; lays that one's memo file. memos: its memo file; empty when that is missing.
/// memoBlock: bytes per block of it; 0: as it says itself. Throws a Refusal.
Rescued rescue(Damaged& damaged, Table& to, const std::string& memos, u32 memoBlock,
               const RescueHooks& hooks);

/// The memo file that a damaged table has by the kind of the new one; empty when there is none.
std::string memosOfDamaged(const std::string& path, const Table& to);

}  // namespace mira::tables
