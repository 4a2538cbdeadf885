// Moving records towards the beginning of a table so that neither a kill nor a power cut loses or
// doubles one: whatever is written over is on the disk elsewhere, and a log tells where
// (dbf/table/movelog.h).
#pragma once

#include "dbf/table/movelog.h"

namespace mira {

class PackMoves {
public:
    explicit PackMoves(DbfBase* h) : h_(h) {}

    /// Whether a record may be written to a place by now.
    bool reaches(u32 place) const { return place < limit_; }
    /// From here on the records from "from" on are written to the places from "to" on. What has
    /// been written before goes to the disk. False when that cannot be done: where nothing has
    /// moved yet the table is as it was.
    bool advance(u32 from, u32 to);
    /// What has been interrupted goes on: puts spare copies back. What had not begun is cut off.
    bool resume(const MoveLog&);
    /// Cuts the table after count records, which ends the log.
    bool end(u32 count);

private:
    bool begin(u32 from, u32 to);
    bool writeSlot();
    std::optional<u64> copySpare(const MoveLog&, bool write);
    bool setSpare(MoveLog*);
    bool putSpareBack();
    bool cut(u64 size);

    DbfBase* h_;
    MoveLog log_;
    u32 limit_ = 0;
};

}  // namespace mira
