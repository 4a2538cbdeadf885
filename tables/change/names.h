// The names that a change may use, all made from the table's own, all in the table's folder:
//
//   stock.dbf-mira        the journal
//   stock.dbf-mira.new    a table that is being built
//   stock.dbf-mira.dbt    its memo file (.dbt, .fpt or .smt, as its kind has it)
//   stock.dbf-mira.cdx    an index file that is being built
//   stock.bak, stock.tbk  the newest backup copies of table and memo file
//   stock.bak1 ...        earlier ones
//
// A table with another extension than .dbf keeps it: dvds.scx.bak, dvds.sct.tbk.
#pragma once

#include <array>
#include <string>
#include <string_view>

#include "mira.h"

namespace mira::tables {

/// The most backups that --backups may ask for.
constexpr u32 kBackupsMost = 99;

struct ChangeNames {
    std::string table;  ///< the file itself, no link to it

    /// path: of a table, there or not.
    explicit ChangeNames(const std::string& path);

    std::string journal() const { return table + "-mira"; }
    std::string newTable() const { return table + "-mira.new"; }
    /// The memo files that a new table may have.
    std::array<std::string, 3> newMemos() const;
    std::string newIndex() const { return table + "-mira.cdx"; }
    /// A file name in the table's folder.
    std::string beside(std::string_view name) const;
    /// Number 0 is the newest.
    std::string backup(u32 number) const;
    std::string memoBackup(u32 number) const;
    /// Whether a file name can be that of the table's memo file.
    bool isMemoName(std::string_view name) const;
    /// Whether it can be that of an index file that is made anew.
    bool isIndexName(std::string_view name) const;
};

}  // namespace mira::tables
