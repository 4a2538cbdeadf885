// What reads met: values that became null or others, what is odd about tables. DuckDB has no way
// for an extension to warn, so this is kept for dbf_warnings().
#pragma once

#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "arrow/part.h"

namespace mira::duck {

/// What one read met in one table.
struct Warning {
    u64 read = 0;
    std::string path;
    arrow::Met met;
    std::vector<std::string> notes;
};

/// Of a database; for all threads.
class Warnings {
public:
    /// The number of a read that begins, from 1.
    u64 nextRead();
    /// Adds what a read met in a range of a table.
    void add(u64 read, const tables::Table& table, const arrow::Met& met);
    /// Adds what is odd about a table.
    void note(u64 read, const tables::Table& table);
    /// Those of the last tables, the oldest first.
    std::vector<Warning> all() const;

private:
    Warning& of(u64 read, const std::string& path);

    mutable std::mutex mutex_;
    std::deque<Warning> warnings_;
    u64 reads_ = 0;
};

}  // namespace mira::duck
