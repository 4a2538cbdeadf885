// Commands that make a new table under a name that the user gives.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include "input/schema.h"
#include "rows/output.h"
#include "tables.h"
#include "write/change.h"

namespace mira::tool {

constexpr std::pair<const char*, TableKind> kKinds[] = {
    {"dbase3", TableKind::DBase3}, {"dbase4", TableKind::DBase4}, {"foxpro", TableKind::FoxPro},
    {"visual", TableKind::Visual}, {"smt", TableKind::Smt},       {"level7", TableKind::Level7}};

/// Where a new table goes: a name without extension gets ".dbf". Throws a Refusal when one is there
/// and may not be replaced; otherwise says what the user can do then.
Target newTableTarget(const std::string& name, const ChangeOptions& options,
                      const std::string& otherwise);
/// Where the memo file of a new table goes; empty when it has none.
std::filesystem::path memoTarget(const Table& table, const Target& target);
/// Throws a Refusal when a table or a memo file is there and may not be replaced.
void checkFree(const Table& table, const Target& target, const ChangeOptions& options);
/// The table that is there, locked; null when there is none, or nothing that needs a backup.
std::unique_ptr<Table> openOld(const Target& target, const ChangeOptions& options);

}  // namespace mira::tool
