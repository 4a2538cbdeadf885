// The virtual table and its cursors.
//
// A connected table keeps its columns and its code page. Every cursor reads through a handle of its
// own, opened with it, so that cursors do not disturb each other, and what another program has
// changed is seen by the next statement.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "api.h"
#include "arguments.h"
#include "changes.h"
#include "columns.h"
#include "index.h"
#include "losses.h"
#include "mira_sqlite.h"
#include "plan.h"
#include "session.h"
#include "shortcut.h"
#include "tables/column/column.h"
#include "tables/value/value.h"

namespace mira::sql {

struct VirtualTable : sqlite3_vtab {
    sqlite3* connection = nullptr;
    bool utf8 = true;                    ///< encoding of the connection's database
    std::shared_ptr<Session> session{};  ///< SQLite may drop the module before the table
    std::string name{};                  ///< with that of its schema
    Arguments arguments;
    std::unique_ptr<tables::Table> table;
    std::optional<Columns> columns;
    SharedFile* file = nullptr;      ///< in session
    std::optional<Changes> changes;  ///< of a writable table
    Losses losses;
    u32 cursors = 0;  ///< open ones
};

/// A scan: all records of a range, those an index gives, or one.
struct Cursor : sqlite3_vtab_cursor {
    std::unique_ptr<tables::Table> table;
    std::optional<tables::CellReader> cells;
    std::string plan;  ///< of the scan before; the same one again makes an index
    std::vector<Shortcut> shortcuts;
    u32 record = 0, end = 0;  ///< physical, from 0; the record read, and where the range ends
    bool atEnd = true;
    std::optional<KeyIndex> index;
    std::span<const KeyIndex::Entry> found;
    bool indexed = false;         ///< this scan goes through found
    u32 looked = 0;               ///< records looked at in this scan
    u64 written = 0, undone = 0;  ///< of its file, when the table was last looked at
};

inline VirtualTable& tableOf(sqlite3_vtab* table) { return *static_cast<VirtualTable*>(table); }
inline VirtualTable& tableOf(const Cursor& cursor) { return tableOf(cursor.pVtab); }

/// Begins a scan at its first record. Throws a Refusal.
void beginScan(Cursor& cursor, const char* plan, std::span<sqlite3_value*> constants);
/// Goes on to the next record that may pass; at the end atEnd is set. Throws a Refusal.
void nextRecord(Cursor& cursor);
/// Counts what could not be kept of a value. Throws a Refusal for a memo that cannot be read where
/// the statement changes something: what is built on it must not replace anything.
void addLoss(Cursor& cursor, const tables::Column& column, tables::Fault fault);

}  // namespace mira::sql
