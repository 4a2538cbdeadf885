// Records by the value of one column, for scans that look for one value again and again: the inner
// table of a join. SQLite makes such an index itself for its own tables, but not for virtual ones.
#pragma once

#include <span>
#include <vector>

#include "tables/value/storage.h"

namespace mira::sql {

using tables::Storage;
using tables::Stored;

class KeyIndex {
public:
    struct Entry {
        u64 hash;
        u32 record;
    };

    explicit KeyIndex(int column) : column_(column) {}
    int column() const { return column_; }

    /// Adds a record; null is equal to nothing and left out.
    void add(const Stored& value, u32 record);
    /// To be called once, when all records are added.
    void finish();
    /// The records, in order, among which are all that are equal to the constant.
    std::span<const Entry> find(const Stored& equal) const;

private:
    int column_;
    std::vector<Entry> entries_;
};

}  // namespace mira::sql
