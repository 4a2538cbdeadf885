// The arguments of read_dbf.
#pragma once

#include <optional>
#include <string>

#include "arrow/mira_arrow.h"
#include "duckdb/api.h"
#include "mira.h"

namespace mira::duck {

struct ReadOptions {
    std::optional<std::string> columns, filter, codePage, types, source;
    u64 first = 0;
    std::optional<u64> until;
    u64 rangeRecords = 0;  // that a thread takes at a time; 0: some 8 MiB of them
    u8 deleted = 0;
    bool exactDecimals = false, longNames = false;

    /// For records first to end of a table, none where they are the same; the texts are those of
    /// this object and of page.
    MiraArrowOptions forRange(u64 begin, u64 end, const char* page) const;
};

/// Declares the named parameters.
void declareOptions(duckdb_table_function function);
/// Throws a Refusal.
ReadOptions optionsOf(duckdb_bind_info info);

}  // namespace mira::duck
