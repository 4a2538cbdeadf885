// The newest backup back in place of a table.
#pragma once

#include <string>
#include <vector>

namespace mira::tables {

struct Undone {
    std::string table, backup;       ///< paths
    std::vector<std::string> notes;  ///< what was put right first, a sentence each
};

/// Exchanges a table and its memo file with its newest backup; a journal that was left goes. The
/// table itself may be damaged. Throws a Refusal.
Undone undoLast(const std::string& name);
/// What that would do.
Undone wouldUndo(const std::string& name);

}  // namespace mira::tables
