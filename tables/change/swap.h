// New files in place of a table and its memo file: all of it or nothing.
//
// The new files are built beside the old ones. The old ones then take the names of a backup, the
// new memo file its name, and last the new table its own, so that at no moment a table can be
// opened with a memo file that is not its own.
#pragma once

#include <string>

#include "tables/change/change.h"
#include "tables/change/journal.h"
#include "tables/change/names.h"
#include "tables/change/newindex.h"

namespace mira::tables {

class Swap {
public:
    /// Makes the journal, for a table that is locked. memos: path of its memo file; empty when no
    /// field needs one. Throws a Refusal, also for a table with several names, of which a swap
    /// would replace one.
    Swap(const std::string& path, const std::string& memos);
    /// For a new table, where nothing is in its place that would be worth a backup.
    explicit Swap(const std::string& path);
    /// Removes the new files unless they have taken their places.
    ~Swap();
    Swap(const Swap&) = delete;

    const ChangeNames& names() const { return names_; }
    /// Where the new table is to be built. The library finds its memo file beside it.
    std::string newTable() const { return names_.newTable(); }
    /// Brings the new files to the disk and swaps. newMemo: the file name that the new memo file
    /// takes, if there is one; index: made anew for the new table. Throws a Refusal; all is as it
    /// was then.
    void commit(const BackupPlan& backups, const std::string& newMemo, const IndexPlan& index = {});
    /// Exchanges the table with its newest backup. Throws a Refusal.
    void exchange(u32 number, const std::string& newMemo);

private:
    Swap(const std::string& path, const std::string& memos, bool oldTable);
    void settle(const std::string& path, const std::string& like);
    void go(const SwapPlan& plan);

    ChangeNames names_;
    JournalWriter journal_;
    std::string oldMemo_;
    bool oldTable_;
    bool isExchange_ = false;
    bool open_ = true;  ///< what is there under new names is to be removed
    Descriptor locks_[2];
};

/// From the entry "X" on: the backup's files become new files.
bool takeBackupOut(const ChangeNames& names, const SwapPlan& plan);
/// The way back from there.
bool putBackupBack(const ChangeNames& names, const SwapPlan& plan);
/// From the entry "S" on: new files take their places. May have been done in part.
bool putInPlace(const ChangeNames& names, const SwapPlan& plan);

}  // namespace mira::tables
