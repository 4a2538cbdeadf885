// Moving records by one place within the table file, so that a write which fails, is cut short or
// is never finished loses none of them.
#pragma once

#include <optional>

#include "dbf/table/position.h"
#include "internal/file.h"
#include "mira.h"

namespace mira {

inline constexpr u32 kTransferSize = 131072;  // bytes moved at a time

enum class MoveState : u8 {
    Done,
    Failed,  ///< every record is whole, at its old place or at its new one
    Stuck,   ///< a chunk is torn, but each of its records is in the file whole
};

struct Moved {
    u32 reached;  ///< going up, the lowest record that has been moved; going down, the first that
                  ///< has not
    MoveState state;
};

/// Moves records of a table by one place, many at a time.
class Mover {
public:
    /// For moving up to a number of records.
    Mover(DbfBase*, u32 records);

    bool ready() const { return buffer_ != nullptr; }
    /// Whether anything was copied past the end of the table.
    bool usedSpare() const { return usedSpare_; }

    /// Moves the records from first to end - 1 one place towards the beginning.
    Moved down(u32 first, u32 end);
    /// Moves the records from first to end - 1 one place towards the end. What a write would
    /// overwrite before it is at its new place is first copied to record number spare; without
    /// one they move one by one.
    Moved up(u32 first, u32 end, std::optional<u32> spare);

    bool read(u32 record, u8* to, u32 records = 1) const;
    bool write(u32 record, const u8* from, u32 records = 1) const;
    /// Writes a record, unless it cannot be written but stands there already.
    bool place(u32 record, const u8* from) const;

private:
    /// How many of these records, from the first on, are in the file already; nothing when one
    /// cannot be read.
    std::optional<u32> standing(u32 record, const u8* from, u32 records) const;

    DbfBase* h_;
    u32 chunk_;  ///< records at a time
    bool usedSpare_ = false;
    Owned<u8> buffer_;
};

}  // namespace mira
