// The journal of a change: a file beside the table, "stock.dbf-mira". While a change runs, its
// program holds a lock of the whole journal.
#pragma once

#include <string>

namespace mira::tables {

/// Whether a change was interrupted: the journal is there, and nobody holds its lock. Links are
/// followed to the table first, since the journal lies beside the real file.
bool hasJournal(const std::string& path);

}  // namespace mira::tables
