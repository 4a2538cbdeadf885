// Records of a table in blocks of some 128 KiB: those of a range that are wanted.
#pragma once

#include <vector>

#include "arrow/mira_arrow.h"
#include "tables/column/column.h"
#include "tables/filter/filter.h"

namespace mira::arrow {

/// A record in a block. Behind the last one, and before the first, lie bytes that may be read.
struct Row {
    const u8* bytes;
    u32 record;  // physical, from 0
};

/// Bytes before the first record and behind the last one of a block.
constexpr std::size_t kSlack = 64;

class Records {
public:
    /// Takes range, filter and deleted of the options; what is odd about the filter is added to
    /// the table's notes. Throws a Failure or a Refusal.
    Records(tables::Table& table, const MiraArrowOptions& options);

    /// The wanted ones among the next records, at most so many; false behind the last one. The rows
    /// last until the next call. Throws a Refusal.
    bool next(u32 most);
    const std::vector<Row>& rows() const { return rows_; }

private:
    bool isWanted(const u8* bytes) const {
        return deleted_ == 1 || (bytes[0] == '*') == (deleted_ == 2);
    }
    /// Reads so many records at most into the block, at least one; how many.
    u32 read(u32 first, u32 count);
    /// The wanted ones among the next records; how many of them have been looked at.
    u32 takeAll(u32 count);
    u32 takeFiltered(u32 count);

    tables::Table& table_;
    u32 next_ = 0, end_ = 0;
    u8 deleted_ = 0;
    tables::LibraryFilter filter_;  // no text: none
    std::vector<u8> block_;
    std::vector<Row> rows_;
};

}  // namespace mira::arrow
