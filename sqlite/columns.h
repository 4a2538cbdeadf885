// The columns that a virtual table declares: those of the table, then two hidden ones. There is
// one copy of each, so that the next value of a counting field is the same for everybody.
#pragma once

#include <cstddef>

#include "tables/column/column.h"

namespace mira::sql {

constexpr std::size_t kHiddenColumns = 2;  // _record, _deleted

class Columns {
public:
    /// The table must outlive it and keep its columns where they are.
    explicit Columns(const tables::Table& table)
        : shown_(table.columns.data()),
          count_(table.columns.size()),
          hidden_{tables::extraColumn(table, "_record", tables::Kind::RecordNumber),
                  tables::extraColumn(table, "_deleted", tables::Kind::Deletion)} {}

    std::size_t size() const { return count_ + kHiddenColumns; }
    const tables::Column& operator[](std::size_t i) const {
        return i < count_ ? shown_[i] : hidden_[i - count_];
    }
    /// The number of _record; _deleted follows.
    std::size_t recordNumber() const { return count_; }

private:
    const tables::Column* shown_;
    std::size_t count_;
    tables::Column hidden_[kHiddenColumns];
};

}  // namespace mira::sql
