#include "tables/change/recovery.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include "tables/change/backup.h"
#include "tables/change/swap.h"
#include "tables/change/watch.h"
#include "tables/open/find.h"
#include "tables/open/open.h"
#include "tables/page/bytes.h"
#include "tables/page/refusal.h"
#include "tables/unpack/archive.h"

namespace mira::tables {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr std::string_view kSuffix = "-mira";

/// The files of a change, as they are found.
struct Files {
    Descriptor journal, table, memos;
    bool mayWrite = true;
    std::string untrusted{};  ///< why nothing may be touched

    int of(FileOf file) const { return (file == FileOf::Table ? table : memos).number(); }
};

Recovery left(const ChangeNames& names, const std::string& why) {
    return {Found::Left, textOf(names.table, ": a change was interrupted, and ", why,
                                "; nothing is touched. Remove ", names.journal(),
                                " when the table is right, or `mira undo` puts its backup back")};
}

Recovery recovered(const ChangeNames& names, const char* what) {
    return {Found::Recovered, textOf(names.table, ": ", what)};
}

// --------------------------------------------------------------------------------------------
// Whom to trust
// --------------------------------------------------------------------------------------------

bool isPlain(const struct stat& info) { return S_ISREG(info.st_mode) && info.st_nlink == 1; }

bool mayOwnJournal(uid_t owner, const struct stat& table) {
    return owner == table.st_uid || owner == geteuid() || owner == 0;
}

/// Why files are none that a change has left; empty when they may be.
std::string faultOf(const struct stat& journal, const std::vector<struct stat>& others) {
    for (const struct stat& info : others) {
        if (!isPlain(info)) return "one of its files is a link or has several names";
        if (info.st_uid != others.front().st_uid) return "its files belong to several users";
        if (!mayOwnJournal(journal.st_uid, info)) return "the journal is another user's";
    }
    return "";
}

/// Of the files in a swap those that are there.
std::vector<struct stat> filesOfSwap(const ChangeNames& names, const Journal& journal) {
    std::vector<struct stat> found;
    const SwapPlan& plan = journal.swap;
    const auto look = [&](const std::string& path) {
        if (const auto info = statusOf(path)) found.push_back(*info);
    };
    look(names.table);
    look(names.newTable());
    if (!plan.oldMemo.empty()) look(names.beside(plan.oldMemo));
    for (const std::string& memos : names.newMemos()) look(memos);
    look(names.newIndex());
    if (!journal.index.name.empty()) look(names.beside(journal.index.name));
    return found;
}

// --------------------------------------------------------------------------------------------
// Whether the files are what the change has left
// --------------------------------------------------------------------------------------------

bool isDate(const Piece& piece, u64 place) {
    return piece.file == FileOf::Table && place >= 1 && place < 4;
}

/// Bytes of a file; zeros where it ends.
std::string bytesAt(int descriptor, u64 place, std::size_t count) {
    std::string bytes(count, '\0');
    const auto info = statusOf(descriptor);
    const u64 size = info ? static_cast<u64>(info->st_size) : 0;
    const u64 held = place < size ? std::min<u64>(count, size - place) : 0;
    readAt(descriptor, place, bytes.data(), static_cast<std::size_t>(held));
    return bytes;
}

/// Pieces that overlap: each byte is an old one or a new one of any of them. What has come behind
/// the old end may be lost: zero.
bool areOldOrNew(const Files& files, const Journal& journal, const Piece* first,
                 const Piece* last) {
    const FileOf file = first->file;
    const u64 start = first->place;
    const u64 before = file == FileOf::Table ? journal.tableSize : journal.memoSize;
    u64 end = start;
    for (const Piece* piece = first; piece != last; ++piece) {
        end = std::max(end, piece->place + piece->newSize);
    }
    const std::string now = bytesAt(files.of(file), start, static_cast<std::size_t>(end - start));
    std::vector<bool> known(now.size());
    std::string told;
    for (const Piece* piece = first; piece != last; ++piece) {
        told.resize(std::size_t{piece->oldSize} + piece->newSize);
        if (!readAt(files.journal.number(), piece->at, told.data(), told.size())) return false;
        const auto at = static_cast<std::size_t>(piece->place - start);
        for (std::size_t i = 0; i < piece->newSize; ++i) {
            const char byte = now[at + i];
            if ((i < piece->oldSize && byte == told[i]) || byte == told[piece->oldSize + i] ||
                (byte == 0 && piece->place + i >= before) || isDate(*piece, piece->place + i)) {
                known[at + i] = true;
            }
        }
    }
    return std::find(known.begin(), known.end(), false) == known.end();
}

bool arePiecesKnown(const Files& files, const Journal& journal) {
    std::vector<Piece> pieces = journal.pieces;
    std::stable_sort(pieces.begin(), pieces.end(), [](const Piece& a, const Piece& b) {
        return a.file != b.file ? a.file < b.file : a.place < b.place;
    });
    const Piece* const end = pieces.data() + pieces.size();
    for (const Piece* first = pieces.data(); first != end;) {
        u64 reached = first->place + first->newSize;
        const Piece* last = first + 1;
        for (; last != end && last->file == first->file && last->place < reached; ++last) {
            reached = std::max(reached, last->place + last->newSize);
        }
        if (!areOldOrNew(files, journal, first, last)) return false;
        first = last;
    }
    return true;
}

/// Behind the old end stand records, or what a power cut has made of them.
bool areRecords(const Files& files, const Journal& journal, u64 size) {
    constexpr std::size_t kChunk = 1 << 17;
    const u64 length = journal.recordLength, header = journal.headerLength;
    const u64 skipped = journal.tableSize > header ? journal.tableSize - header : 0;
    u64 place = header + (skipped + length - 1) / length * length;
    std::string bytes;
    u64 start = 0;
    for (; place < size; place += length) {
        if (bytes.empty() || place >= start + bytes.size()) {
            start = place;
            bytes = bytesAt(files.table.number(), start, kChunk);
        }
        const char mark = bytes[static_cast<std::size_t>(place - start)];
        const bool end = mark == 0x1A && place + 1 == size;
        if (mark != ' ' && mark != '*' && mark != 0 && !end) return false;
    }
    return true;
}

bool isOurs(const Files& files, const Journal& journal) {
    const auto table = statusOf(files.table.number());
    if (!table || journal.memosThere != static_cast<bool>(files.memos)) return false;
    const auto within = [](u64 size, u64 least, u64 most) { return size >= least && size <= most; };
    const auto size = static_cast<u64>(table->st_size);
    if (!within(size, journal.tableSize, journal.tableLimit)) return false;
    if (files.memos) {
        const auto memos = statusOf(files.memos.number());
        if (!memos ||
            !within(static_cast<u64>(memos->st_size), journal.memoSize, journal.memoLimit)) {
            return false;
        }
    }
    return arePiecesKnown(files, journal) && areRecords(files, journal, size);
}

// --------------------------------------------------------------------------------------------
// Undoing and finishing
// --------------------------------------------------------------------------------------------

bool cut(int descriptor, u64 size) {
    const auto info = statusOf(descriptor);
    return info && (static_cast<u64>(info->st_size) <= size ||
                    ftruncate(descriptor, static_cast<off_t>(size)) == 0);
}

bool undoPieces(const Files& files, const Journal& journal) {
    std::string bytes;
    u64 done = 0, total = 0;
    for (const Piece& piece : journal.pieces) total += piece.oldSize;
    for (auto piece = journal.pieces.rbegin(); piece != journal.pieces.rend(); ++piece) {
        tellUndoing(done, total);
        done += piece->oldSize;
        const u64 before = piece->file == FileOf::Table ? journal.tableSize : journal.memoSize;
        if (piece->place >= before) continue;
        bytes.resize(
            static_cast<std::size_t>(std::min<u64>(piece->oldSize, before - piece->place)));
        if (!readAt(files.journal.number(), piece->at, bytes.data(), bytes.size())) return false;
        if (bytesAt(files.of(piece->file), piece->place, bytes.size()) == bytes) continue;
        if (!writeAt(files.of(piece->file), piece->place, bytes.data(), bytes.size())) return false;
    }
    if (!cut(files.table.number(), journal.tableSize) || fsync(files.table.number()) != 0) {
        return false;
    }
    return !files.memos ||
           (cut(files.memos.number(), journal.memoSize) && fsync(files.memos.number()) == 0);
}

[[noreturn]] void refuseToWrite(const ChangeNames& names) {
    refuse(names.table,
           ": a change was interrupted and has to be undone, but you may not write "
           "here; copy table, memo file and ",
           names.journal(), " to where you may write");
}

[[noreturn]] void refuseNow(const ChangeNames& names) {
    refuse(names.table,
           ": a change was interrupted and cannot be undone now: ", std::strerror(errno));
}

Recovery undoChange(const ChangeNames& names, Files& files, const Journal& journal) {
    if (!journal.memoName.empty()) {
        const std::string path = names.beside(journal.memoName);
        files.memos = openPlain(path, files.mayWrite ? O_RDWR : O_RDONLY);
        if (!files.memos && isThere(path)) {
            if (errno == EACCES || errno == EROFS) refuseToWrite(names);
            return left(names, "its memo file is a link");
        }
    }
    std::vector<struct stat> others;
    for (const Descriptor* file : {&files.table, &files.memos}) {
        const auto info = *file ? statusOf(file->number()) : std::nullopt;
        if (info) others.push_back(*info);
    }
    const auto own = statusOf(files.journal.number());
    const std::string fault = own ? faultOf(*own, others) : "the journal cannot be read";
    if (!fault.empty()) return left(names, fault);
    if (!isOurs(files, journal)) {
        return left(names, "somebody has worked on the table since");
    }
    if (!files.mayWrite) refuseToWrite(names);
    const bool undone = undoPieces(files, journal);
    tellUndoing(0, 0);
    if (!undone || !removeNewFiles(names)) refuseNow(names);
    endJournal(files.journal.number(), names.journal());
    return recovered(names, "an interrupted change has been undone");
}

Recovery finishSwap(const ChangeNames& names, const Files& files, const Journal& journal) {
    const auto own = statusOf(files.journal.number());
    const std::string fault =
        own ? faultOf(*own, filesOfSwap(names, journal)) : "the journal cannot be read";
    if (!fault.empty()) return left(names, fault);
    const bool alone = journal.state == Journal::State::Placing;
    if (alone && !mayPlaceIndex(names, journal.index)) {
        return left(names, "somebody has worked on its index since");
    }
    if (!files.mayWrite) refuseToWrite(names);
    const bool forward = alone || journal.state == Journal::State::Swapping;
    if (alone ? !placeIndex(names, journal.index.name)
              : !(forward ? putInPlace : putBackupBack)(names, journal.swap)) {
        refuseNow(names);
    }
    endJournal(files.journal.number(), names.journal());
    return recovered(names, forward ? "an interrupted change has been finished"
                                    : "an interrupted change has been undone");
}

Recovery dropBuilding(const ChangeNames& names, const Files& files) {
    if (!files.mayWrite) return {};
    if (!removeNewFiles(names)) return {};
    endJournal(files.journal.number(), names.journal());
    return recovered(names, "an interrupted change had not begun; what it left is removed");
}

Recovery recoverBy(const ChangeNames& names, Files& files, const Journal& journal) {
    switch (journal.state) {
        case Journal::State::Dead:
            if (files.mayWrite) endJournal(files.journal.number(), names.journal());
            return {};
        case Journal::State::Building:
            return dropBuilding(names, files);
        case Journal::State::Changing:
            if (!files.table) return left(names, "the table is gone");
            return undoChange(names, files, journal);
        case Journal::State::Placing:
        case Journal::State::Exchanging:
        case Journal::State::Swapping:
            return finishSwap(names, files, journal);
        case Journal::State::Foreign:
            break;
    }
    return left(names, "its journal is none that this program understands");
}

// --------------------------------------------------------------------------------------------
// Getting hold of the files
// --------------------------------------------------------------------------------------------

/// For writing where that is allowed.
Descriptor openEither(const std::string& path, bool& mayWrite) {
    Descriptor file = openPlain(path, O_RDWR);
    if (file || (errno != EACCES && errno != EROFS && errno != EPERM)) return file;
    mayWrite = false;
    return openPlain(path, O_RDONLY);
}

enum class Hold : u8 { Held, Busy, Again, NoLocks };

Hold holdFile(const Descriptor& file, const std::string& path, bool mayWrite) {
    if (!mayWrite) return isLocked(file.number()) ? Hold::Busy : Hold::Held;
    const Lock lock = takeLock(file.number());
    if (lock == Lock::Busy) return Hold::Busy;
    if (!isNamed(file.number(), path)) return Hold::Again;
    return lock == Lock::None ? Hold::NoLocks : Hold::Held;
}

/// One try; nothing when names have changed meanwhile.
std::optional<Recovery> tryRecover(const ChangeNames& names) {
    const auto info = statusOf(names.journal());
    if (!info) return Recovery{};
    if (!isPlain(*info)) return left(names, "its journal is a link or no file");
    Files files;
    files.mayWrite = access(folderOf(names.table).c_str(), W_OK) == 0;
    files.journal = openEither(names.journal(), files.mayWrite);
    if (!files.journal && errno == ENOENT) return std::nullopt;
    if (!files.journal) return left(names, "its journal cannot be read");
    if (const auto table = statusOf(names.table); table && S_ISREG(table->st_mode)) {
        files.table = openEither(names.table, files.mayWrite);
    }
    for (const auto& [file, path] :
         {std::pair(&files.table, names.table), std::pair(&files.journal, names.journal())}) {
        if (!*file) continue;
        const Hold hold = holdFile(*file, path, files.mayWrite);
        if (hold == Hold::Again) return std::nullopt;
        if (hold == Hold::NoLocks) return left(names, "locks do not work here");
        if (hold == Hold::Busy) return Recovery{Found::Busy, ""};
    }
    return recoverBy(names, files, readJournal(files.journal.number(), names));
}

bool isSwapping(const ChangeNames& names) {
    const Descriptor journal = openPlain(names.journal(), O_RDONLY);
    if (!journal) return isThere(names.journal());
    return readJournal(journal.number(), names).state >= Journal::State::Exchanging;
}

/// What a name stands for, or stood for before an interrupted swap.
std::string tableOrJournal(const std::string& name) {
    std::error_code ignored;
    for (const std::string& wanted : {name, name + ".dbf"}) {
        if (fs::exists(wanted, ignored)) return wanted;
    }
    for (const std::string& wanted : {name, name + ".dbf"}) {
        if (std::string found = inAnyCase(wanted); !found.empty()) return found;
        std::string journal = inAnyCase(wanted + std::string(kSuffix));
        if (journal.empty()) continue;
        journal.resize(journal.size() - kSuffix.size());
        return journal;
    }
    return "";
}

/// Whether another program has written since the table was opened, before it was locked.
bool hasChanged(const Table& table) {
    u8 count[4] = {};
    const auto info = statusOf(fileno(table.base->TableFile));
    return !info || static_cast<u64>(info->st_size) != table.fileSize ||
           !readAt(fileno(table.base->TableFile), 4, count, sizeof count) ||
           loadLe<u32>(count) != table.storedCount;
}

/// Another program may have written what this handle has read.
void forgetReadAhead(Table& table) {
    DbfBase* const base = table.base.get();
    const u32 count = base->Header.RecordCount;
    RefreshDatabase(base);
    base->Header.RecordCount = count;
}

}  // namespace

Recovery recover(const ChangeNames& names) {
    constexpr int kTries = 50;  // of 20 ms, a second
    for (int i = 0; i < kTries; ++i) {
        const std::optional<Recovery> found = tryRecover(names);
        if (found && (found->found != Found::Busy || !isSwapping(names))) return *found;
        if (found) std::this_thread::sleep_for(20ms);
    }
    return {Found::Busy, ""};
}

Recovery recoverNamed(const std::string& name) {
    if (isInArchive(name)) return {};
    const std::string path = tableOrJournal(name);
    if (path.empty()) return {};
    const ChangeNames names(path);
    Recovery found = recover(names);
    if (found.found == Found::Busy && !isThere(names.table)) refuseBusy(path);
    return found;
}

std::vector<Recovery> recoverIn(const std::string& folder, bool recursive) {
    std::vector<Recovery> recoveries;
    const auto look = [&](const fs::path& path) {
        const std::string name = path.string();
        if (!foldCase(name).ends_with(".dbf-mira")) return;
        try {
            recoveries.push_back(
                recover(ChangeNames(name.substr(0, name.size() - kSuffix.size()))));
        } catch (const Refusal& refusal) {
            recoveries.push_back({Found::Left, refusal.what()});
        }
    };
    std::error_code error;
    constexpr auto kOptions = fs::directory_options::skip_permission_denied;
    std::vector<fs::path> found;
    if (recursive) {
        for (fs::recursive_directory_iterator at(folder, kOptions, error), end; !error && at != end;
             at.increment(error)) {
            found.push_back(at->path());
        }
    } else {
        for (fs::directory_iterator at(folder, error), end; !error && at != end;
             at.increment(error)) {
            found.push_back(at->path());
        }
    }
    for (const fs::path& path : found) look(path);
    return recoveries;
}

bool discardJournal(const ChangeNames& names) {
    return unlink(names.journal().c_str()) == 0 && syncFolderOf(names.table);
}

std::vector<std::string> lockForChange(Table& table, bool keepLeft) {
    constexpr int kTries = 20;
    std::vector<std::string> notes;
    const ChangeNames names(table.path);
    for (int i = 0; i < kTries; ++i) {
        const Recovery found = recover(names);
        if (found.found == Found::Busy) refuseBusy(table.path);
        if (found.found == Found::Left && !keepLeft) refuse(found.sentence);
        if (!found.sentence.empty()) notes.push_back(found.sentence);
        const int descriptor = fileno(table.base->TableFile);
        const Lock lock = takeLock(descriptor);
        if (lock == Lock::Busy) refuseBusy(table.path);
        const bool current = isNamed(descriptor, names.table) && !hasChanged(table) &&
                             (!isThere(names.journal()) || found.found == Found::Left);
        if (!current) {
            Table fresh = std::move(*openTable(table.path, table.options));
            table = std::move(fresh);
            continue;
        }
        forgetReadAhead(table);
        if (lock == Lock::None) {
            notes.push_back(textOf(
                table.path, ": cannot be locked here; nobody else may write to it meanwhile"));
        }
        return notes;
    }
    refuseBusy(table.path);
}

void unlock(Table& table) { releaseLock(fileno(table.base->TableFile)); }

Opened openForChange(const std::string& name, const TableOptions& options, bool keepLeft) {
    Opened opened;
    refuseArchive(name);
    const Recovery found = recoverNamed(name);
    if (found.found == Found::Left && !keepLeft) refuse(found.sentence);
    if (!found.sentence.empty()) opened.notes.push_back(found.sentence);
    const std::string path = realPath(findTable(name));
    TableOptions writable = options;
    writable.writable = true;
    opened.table = openTable(path, writable);
    checkWritable(*opened.table);
    for (std::string& note : lockForChange(*opened.table, keepLeft)) {
        if (note != found.sentence) opened.notes.push_back(std::move(note));
    }
    return opened;
}

}  // namespace mira::tables
