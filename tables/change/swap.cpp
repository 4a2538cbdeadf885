#include "tables/change/swap.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "tables/change/backup.h"
#include "tables/page/refusal.h"

namespace mira::tables {
namespace {

namespace fs = std::filesystem;

bool rename(const std::string& from, const std::string& to) {
    return std::rename(from.c_str(), to.c_str()) == 0;
}

std::string newMemoOf(const ChangeNames& names, const SwapPlan& plan) {
    return plan.newMemoKind < 0 ? std::string()
                                : names.newMemos()[static_cast<std::size_t>(plan.newMemoKind)];
}

/// Which of the names of new memo files has a file.
int builtMemoKind(const ChangeNames& names) {
    const auto memos = names.newMemos();
    for (std::size_t kind = 0; kind < memos.size(); ++kind) {
        if (isThere(memos[kind])) return static_cast<int>(kind);
    }
    return -1;
}

/// The old memo file, whose place is to be free.
bool clearMemos(const ChangeNames& names, const SwapPlan& plan) {
    const std::string old = plan.oldMemo.empty() ? "" : names.beside(plan.oldMemo);
    const std::string backup = names.memoBackup(plan.number);
    if (plan.backup && !plan.oldMemos) return removeFile(backup);
    if (!plan.oldMemos || !isThere(old)) return true;
    return plan.backup ? rename(old, backup) : removeFile(old);
}

bool clearTable(const ChangeNames& names, const SwapPlan& plan) {
    if (!plan.oldTable || !isThere(names.table)) return true;
    return plan.backup ? rename(names.table, names.backup(plan.number)) : removeFile(names.table);
}

void refuseSeveralNames(const std::string& path) {
    const auto info = statusOf(path);
    if (!info || info->st_nlink < 2) return;
    refuse(path, ": has ", info->st_nlink,
           " names (hard links), and the new file would get only this one; copy it first");
}

/// Without backups the old table goes first: its memo file may be gone then, but not another's.
bool clearPlaces(const ChangeNames& names, const SwapPlan& plan) {
    const bool done = plan.backup ? clearMemos(names, plan) && syncFolderOf(names.table) &&
                                        clearTable(names, plan)
                                  : clearTable(names, plan) && clearMemos(names, plan);
    return done && syncFolderOf(names.table);
}

}  // namespace

bool takeBackupOut(const ChangeNames& names, const SwapPlan& plan) {
    const std::string memos = names.memoBackup(plan.number);
    const std::string newMemo = newMemoOf(names, plan);
    if (!newMemo.empty() && !isThere(newMemo) && !rename(memos, newMemo)) return false;
    if (!isThere(names.newTable()) && !rename(names.backup(plan.number), names.newTable())) {
        return false;
    }
    return syncFolderOf(names.table);
}

bool putBackupBack(const ChangeNames& names, const SwapPlan& plan) {
    const std::string memos = newMemoOf(names, plan);
    if (!memos.empty() && isThere(memos) &&
        !(rename(memos, names.memoBackup(plan.number)) && syncFolderOf(names.table))) {
        return false;
    }
    return !isThere(names.newTable()) ||
           (rename(names.newTable(), names.backup(plan.number)) && syncFolderOf(names.table));
}

bool putInPlace(const ChangeNames& names, const SwapPlan& plan) {
    const std::string newMemo = newMemoOf(names, plan);
    // Once the new table has its name there are no old files in the way.
    const bool placed = !isThere(names.newTable());
    if (!placed && !(newMemo.empty() || isThere(newMemo) ? clearPlaces(names, plan)
                                                         : clearTable(names, plan))) {
        return false;
    }
    if (!newMemo.empty() && isThere(newMemo)) {
        if (!rename(newMemo, names.beside(plan.newMemo)) || !syncFolderOf(names.table)) {
            return false;
        }
    }
    if (!plan.index.empty() && !placeIndex(names, plan.index)) return false;
    return (placed || rename(names.newTable(), names.table)) && syncFolderOf(names.table);
}

Swap::Swap(const std::string& path) : Swap(path, "", false) {}
Swap::Swap(const std::string& path, const std::string& memos) : Swap(path, memos, true) {}

Swap::Swap(const std::string& path, const std::string& memos, bool oldTable)
    : names_(path), journal_(names_), oldTable_(oldTable) {
    try {
        if (oldTable_) refuseSeveralNames(names_.table);
        const std::string name = fs::path(memos).filename().string();
        if (!name.empty() && isThere(names_.beside(name))) {
            if (!names_.isMemoName(name)) {
                refuse(path, ": its memo file ", name, " has no name of its own");
            }
            refuseSeveralNames(names_.beside(name));
            oldMemo_ = name;
        }
        const u64 there = (oldTable_ ? 1U : 0U) + (oldMemo_.empty() ? 0U : 2U);
        journal_.add('B', FileOf::Table, there, oldMemo_, {});
        if (!journal_.synchronise()) refuse(path, ": the journal cannot be written");
        // What a program without journals may have left there.
        removeNewFiles(names_);
    } catch (...) {
        journal_.end();
        throw;
    }
}

Swap::~Swap() {
    if (open_ && removeNewFiles(names_)) journal_.end();
}

/// A new file, to the disk; whoever might use the old one may use it.
void Swap::settle(const std::string& path, const std::string& like) {
    Descriptor& file = locks_[path == newTable() ? 0 : 1];
    file = openPlain(path, O_RDWR);
    const Descriptor old(open(like.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (old) carryOver(old.number(), file.number());
    if (!file || fsync(file.number()) != 0) {
        refuse(names_.table, ": the new files cannot be written: ", std::strerror(errno));
    }
    takeLock(file.number());
}

void Swap::go(const SwapPlan& plan) {
    addSwap(journal_, 'S', plan);
    if (!journal_.synchronise()) {
        // The entry may be on the disk all the same, and nobody is to go by it.
        const int error = errno;
        open_ = false;
        if (journal_.end() && !isExchange_) removeNewFiles(names_);
        if (isExchange_) putBackupBack(names_, plan);
        refuse(names_.table, ": the journal cannot be written: ", std::strerror(error));
    }
    open_ = false;
    if (putInPlace(names_, plan)) {
        journal_.end();
        return;
    }
    refuse(names_.table, ": the new files cannot take their places now: ", std::strerror(errno),
           "; `mira info ", names_.table, "` does it");
}

void Swap::commit(const BackupPlan& backups, const std::string& newMemo, const IndexPlan& index) {
    SwapPlan plan;
    plan.newMemoKind = newMemo.empty() ? -1 : builtMemoKind(names_);
    plan.newMemo = plan.newMemoKind < 0 ? "" : newMemo;
    plan.oldMemo = oldMemo_;
    plan.oldMemos = !oldMemo_.empty();
    plan.oldTable = oldTable_;
    plan.backup = oldTable_ && backups.wanted;
    const std::string memos = newMemoOf(names_, plan);
    const std::string like = plan.oldMemos ? names_.beside(oldMemo_) : names_.table;
    if (!memos.empty()) settle(memos, like);
    settle(newTable(), names_.table);
    if (!syncFolderOf(names_.table)) refuse(names_.table, ": its folder cannot be written");
    plan.index = index.name;
    if (!index.name.empty()) buildIndex(names_, index, newTable(), journal_);
    if (plan.backup) rotateBackups(names_, backups.copies);
    go(plan);
}

void Swap::exchange(u32 number, const std::string& newMemo) {
    SwapPlan plan;
    plan.number = number;
    plan.oldMemo = oldMemo_;
    plan.oldMemos = !oldMemo_.empty();
    plan.oldTable = oldTable_;
    if (isThere(names_.memoBackup(number))) {
        plan.newMemoKind = 0;
        plan.newMemo = newMemo;
    }
    isExchange_ = true;
    addSwap(journal_, 'X', plan);
    if (!journal_.synchronise()) refuse(names_.table, ": the journal cannot be written");
    open_ = false;
    if (!takeBackupOut(names_, plan)) {
        const int error = errno;
        if (putBackupBack(names_, plan)) journal_.end();
        refuse(names_.table, ": the backup cannot be moved: ", std::strerror(error));
    }
    go(plan);
}

}  // namespace mira::tables
