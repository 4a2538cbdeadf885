#include "tables/change/newindex.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "tables/change/backup.h"
#include "tables/change/disk.h"
#include "tables/page/refusal.h"

namespace mira::tables {
namespace {

/// Size and checksum of a file; nothing when it cannot be read to its end.
std::optional<OldIndex> readOldIndex(const std::string& path) {
    constexpr std::size_t kChunk = 1 << 17;
    const Descriptor file = openPlain(path, O_RDONLY);
    const auto info = file ? statusOf(file.number()) : std::nullopt;
    if (!info || !S_ISREG(info->st_mode)) return std::nullopt;
    OldIndex index{.size = static_cast<u64>(info->st_size)};
    std::string bytes;
    for (u64 place = 0; place < index.size; place += bytes.size()) {
        bytes.resize(static_cast<std::size_t>(std::min<u64>(kChunk, index.size - place)));
        if (!readAt(file.number(), place, bytes.data(), bytes.size())) return std::nullopt;
        index.sum = checksum(index.sum, bytes.data(), bytes.size());
    }
    return index;
}

/// Only a file with one name can be replaced.
void checkAlone(const std::string& path) {
    const auto info = statusOf(path);
    if (!info) refuse(path, ": cannot be read: ", std::strerror(errno));
    if (S_ISREG(info->st_mode) && info->st_nlink == 1) return;
    refuse(path, ": is a link or has several names, and a new index would get only this one");
}

}  // namespace

void buildIndex(const ChangeNames& names, const IndexPlan& plan, const std::string& table,
                JournalWriter& journal) {
    const std::string path = names.beside(plan.name), made = names.newIndex();
    checkAlone(path);
    std::optional<OldIndex> old = readOldIndex(path);
    const Descriptor before(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!old || !before) refuse(path, ": cannot be read: ", std::strerror(errno));
    if (!removeFile(made)) refuse(made, ": cannot be removed: ", std::strerror(errno));
    const Descriptor file = openPlain(made, O_RDWR | O_CREAT | O_EXCL);
    if (file) plan.write(table, file.number());
    if (file) carryOver(before.number(), file.number());
    if (!file || fsync(file.number()) != 0 || !syncFolderOf(made)) {
        refuse(path, ": its new index cannot be written: ", std::strerror(errno));
    }
    old->name = plan.name;
    addIndex(journal, *old);
}

bool placeIndex(const ChangeNames& names, const std::string& name) {
    if (!isThere(names.newIndex())) return true;
    return std::rename(names.newIndex().c_str(), names.beside(name).c_str()) == 0 &&
           syncFolderOf(names.table);
}

bool mayPlaceIndex(const ChangeNames& names, const OldIndex& old) {
    if (old.name.empty() || !isThere(names.newIndex())) return true;
    const std::optional<OldIndex> now = readOldIndex(names.beside(old.name));
    return now && now->size == old.size && now->sum == old.sum;
}

bool finishIndex(const ChangeNames& names, JournalWriter& journal, const std::string& name) {
    const auto leave = [&](const char* what) {
        const int error = errno;
        refuse(names.table, ": ", what, ": ", std::strerror(error), "; `mira info ", names.table,
               "` puts it right");
    };
    journal.add('D', FileOf::Table, 0, {}, {});
    if (!journal.synchronise()) {
        if (journal.takeBack()) return false;
        leave("the journal cannot be written");
    }
    if (!placeIndex(names, name)) leave("the new index cannot take its place now");
    journal.end();
    return true;
}

void renewIndex(const Table& table, const IndexPlan& plan) {
    const ChangeNames names(table.path);
    JournalWriter journal(names);
    try {
        journal.add('B', FileOf::Table, 1, {}, {});
        if (!journal.synchronise()) refuse(table.path, ": the journal cannot be written");
        buildIndex(names, plan, names.table, journal);
    } catch (...) {
        if (removeNewFiles(names)) journal.end();
        throw;
    }
    if (finishIndex(names, journal, plan.name)) return;
    if (removeNewFiles(names)) journal.end();
    refuse(table.path, ": the journal cannot be written; nothing is changed");
}

}  // namespace mira::tables
