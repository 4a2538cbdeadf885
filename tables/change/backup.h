// What comes before the first write: may it be done, and copies of what is there.
#pragma once

#include <optional>
#include <string>

#include "tables/change/names.h"
#include "tables/column/column.h"

namespace mira::tables {

/// Throws a Refusal beside a ".shp" file, whose shapes go by record number; it ends with the way
/// out.
void refuseBesideShapes(const Table& table, const char* wayOut);

/// Throws a Refusal when the table, or the memo file that one of its fields needs, cannot be
/// written.
void checkWritable(const Table& table);

/// Makes room for a new backup number 0: those up to the first gap move on by one, and of more
/// than copies the oldest goes. Throws a Refusal.
void rotateBackups(const ChangeNames& names, u32 copies);
/// Copies the table and its memo file to backup number 0. Until they are whole the copies have
/// the names of new files, which a journal has to tell by then. Throws a Refusal.
void makeBackups(const Table& table, const ChangeNames& names, u32 copies);
/// Removes files that have the names of new ones; false when one of them stays.
bool removeNewFiles(const ChangeNames& names);
/// The newest backup that there is.
std::optional<u32> newestBackup(const ChangeNames& names);

}  // namespace mira::tables
