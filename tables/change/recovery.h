// What an interrupted change has left, put right before a table is opened.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tables/change/names.h"
#include "tables/column/column.h"

namespace mira::tables {

enum class Found : u8 {
    Nothing,
    Recovered,  ///< the table is as it was before the change, or after it
    Busy,       ///< another program is at it
    Left        ///< nothing could be touched
};
struct Recovery {
    Found found = Found::Nothing;
    std::string sentence{};  ///< for the user; names the table
};

/// Undoes or finishes what the journal of a table tells, if there is one and nobody holds it; the
/// table itself may be missing. Waits up to a second for a swap that is under way. Throws a
/// Refusal where the user may not write what needs it.
Recovery recover(const ChangeNames& names);
/// The same for a name as findTable takes it.
Recovery recoverNamed(const std::string& name);
/// For the tables of a folder, with recursive of those below.
std::vector<Recovery> recoverIn(const std::string& folder, bool recursive);
/// Removes a journal that was left; false when it cannot be.
bool discardJournal(const ChangeNames& names);

/// Takes the lock of a table that is open for writing, once what was interrupted is put right; a
/// table that another program has changed since is opened anew in its place. What is to be told.
/// Throws a Refusal: another program changes it, or a journal was left (unless keepLeft).
std::vector<std::string> lockForChange(Table& table, bool keepLeft = false);
void unlock(Table& table);

struct Opened {
    std::unique_ptr<Table> table;
    std::vector<std::string> notes;  ///< recoveries first; a sentence each
};
/// Opens a table to change it, and locks it for as long as it is open. Throws a Refusal.
Opened openForChange(const std::string& name, const TableOptions& options, bool keepLeft = false);

}  // namespace mira::tables
