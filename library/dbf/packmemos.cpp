// Rebuilding the memo file. A reference says nothing about which of two files it means, so there
// are two passes with the change of names between them:
//
//   1. each record is read, and its memos are copied into a new file of another name; the
//      references it is to get, and those it has, go into the file's log;
//   2. the old file takes its "~" name and the new one that of the old;
//   3. the records get their references, and the log is cut off.
//
// What fails before 2 has changed nothing, and what fails later is undone. Where that is not
// possible, and when the process is killed, a memo file with a log stays, by which 3 can be done
// again at any time; until then no memo is read through it.
#include "dbf/packmemos.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "dbf/changedrecords.h"
#include "dbf/packrecords.h"
#include "dbf/table/position.h"
#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "dbf/value/reference.h"
#include "internal/newfile.h"
#include "internal/restore.h"
#include "memo/rebuild.h"

namespace mira {

namespace {

/// The fields that hold references, and the bytes they take together.
struct ReferenceFields {
    u32 count = 0;
    u32 width = 0;
    u16 numbers[kFieldMax];
};

void findReferences(DbfBase* h, ReferenceFields* fields) {
    for (int field = h->FirstMemoField; field < h->FieldCount; ++field) {
        if (!holdsReference(h, field)) continue;
        fields->numbers[fields->count++] = static_cast<u16>(field);
        fields->width += static_cast<u32>(fieldBytes(h, field).size());
    }
}

void copyReferences(DbfBase* h, const ReferenceFields& fields, u8* to) {
    for (u32 i = 0; i < fields.count; ++i) {
        const std::span<u8> bytes = fieldBytes(h, fields.numbers[i]);
        to = std::copy(bytes.begin(), bytes.end(), to);
    }
}

/// What stands in for a reference between the old one and the new one, where a write of the one
/// over the other that stops half-way would leave what stands for no memo.
constexpr u8 kBetween[kReferenceSize] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                         0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

/// A reference on its way: what it was and what it is to be.
struct Change {
    const u8* was;
    const u8* becomes;
};

/// Whether a write of one reference over another can have stopped at these bytes: it has done the
/// first of them, up to none or all.
bool isTorn(std::span<const u8> bytes, const u8* from, const u8* to) {
    std::size_t i = 0;
    while (i < bytes.size() && bytes[i] == to[i]) ++i;
    while (i < bytes.size() && bytes[i] == from[i]) ++i;
    return i == bytes.size();
}

/// Whether a reference is one that packing has left, in either direction. Anything else has been
/// stored meanwhile, and stays; so does what has been cleared.
bool isLeft(DbfBase* h, const DbfField& field, std::span<const u8> bytes, Change change) {
    const u8* const states[] = {change.was, change.becomes, kBetween};
    const bool blank = isBlankReference(h, field, bytes);
    for (const u8* const from : states) {
        for (const u8* const to : states) {
            if (isTorn(bytes, from, to) && (from == to || !blank)) return true;
        }
    }
    return false;
}

/// Whether a write of one reference over another can stop at bytes that stand for no memo.
bool tearsToBlank(DbfBase* h, const DbfField& field, std::span<const u8> from,
                  std::span<const u8> to) {
    std::size_t blank = 0;  // bytes at the beginning
    while (blank < to.size() && isBlankReference(h, field, to.subspan(blank, 1))) ++blank;
    return blank != 0 && blank < to.size() && !isBlankReference(h, field, from) &&
           isBlankReference(h, field, from.subspan(blank));
}

/// Puts a new reference into a field of RecordBuffer, which goes into a record next.
bool setReference(DbfBase* h, u32 record, int field, Change change) {
    const DbfField& f = h->Fields[field];
    const std::span<u8> bytes = fieldBytes(h, f);
    const std::span<const u8> was(change.was, bytes.size()), becomes(change.becomes, bytes.size());
    // What hooks make of the bytes in the file is not known here.
    const bool plain = h->AfterRead == nullptr && h->BeforeWrite == nullptr;
    if (plain && (tearsToBlank(h, f, was, becomes) || tearsToBlank(h, f, becomes, was))) {
        const auto size = static_cast<u32>(bytes.size());
        if (!writeTable(h, offsetOf(h, record, f.Offset), kBetween, size)) return false;
    }
    std::copy(becomes.begin(), becomes.end(), bytes.begin());
    return true;
}

/// Puts its new references into RecordBuffer. sure: they are known to be the old ones.
bool setReferences(DbfBase* h, u32 record, const ReferenceFields& fields, Change change,
                   bool sure) {
    for (u32 i = 0; i < fields.count; ++i) {
        const int field = fields.numbers[i];
        const std::size_t size = fieldBytes(h, field).size();
        if ((sure || isLeft(h, h->Fields[field], fieldBytes(h, field), change)) &&
            !setReference(h, record, field, change)) {
            return false;
        }
        change = {change.was + size, change.becomes + size};
    }
    return true;
}

/// The old memo file of a rebuild.
struct OldMemos {
    std::FILE* file;
    const MemoFamily& family;
    u32 unit;
};

/// Copies the memo of a field, and gives the field its reference to the copy, or none when it leads
/// to no memo. False when a memo would be lost.
bool copyMemo(DbfBase* h, int field, const OldMemos& from, MemoBuilder* to) {
    const MemoReference old = memoReference(h, field);
    Owned<char> memo;
    u32 length = 0;
    MemoRead found = MemoRead::None;
    if (old.block != 0 || old.length != 0) {
        if (from.unit == 0) return false;  // nobody can tell where it leads
        found =
            readMemo(fileno(from.file), from.family, from.unit, old, kMemoNoLimit, &memo, &length);
    }
    ClearField(h, field);
    if (found != MemoRead::Found || length == 0) return found != MemoRead::Failed;
    const u32 block = hasRoomForReference(h, field) ? to->append(memo.get(), length) : 0;
    if (block == 0) return false;
    setMemoReference(h, field, {block, length});
    return memoReference(h, field).block == block;  // digits may not fit
}

/// First pass: copies the memos of all records, or of those that are not marked deleted, and logs
/// their references.
bool copyMemos(DbfBase* h, const ReferenceFields& fields, const OldMemos& from, bool drop,
               MemoBuilder* to, ChangedRecords* records, Bytes* log, u32* count) {
    for (u32 record = 0; record < h->Header.RecordCount; ++record) {
        if (!records->read(record)) return false;
        if (drop && h->RecordBuffer[0] == kDeleted) continue;
        u8* const entry = log->add(std::size_t{2} * fields.width);
        if (entry == nullptr) return false;
        copyReferences(h, fields, entry);
        for (u32 i = 0; i < fields.count; ++i) {
            if (!copyMemo(h, fields.numbers[i], from, to)) return false;
        }
        copyReferences(h, fields, entry + fields.width);
        ++*count;
    }
    return true;
}

/// The log of a rebuild, and the fields it is about.
struct Log {
    const ReferenceFields& fields;
    const u8* bytes;
    u32 records;

    const u8* was(u32 record) const { return bytes + std::size_t{2} * fields.width * record; }
    const u8* becomes(u32 record) const { return was(record) + fields.width; }
};

/// Puts what stands for no reference where a power cut could leave the beginning of one and the end
/// of another, in two sectors, as what stands for no memo; to the disk before the new ones.
bool setApart(DbfBase* h, const Log& log, u32 count) {
    constexpr u64 kSector = 512;
    if (h->AfterRead != nullptr || h->BeforeWrite != nullptr) return true;
    bool any = false;
    for (u32 record = 0; record < count; ++record) {
        Change change{log.was(record), log.becomes(record)};
        for (u32 i = 0; i < log.fields.count; ++i) {
            const DbfField& field = h->Fields[log.fields.numbers[i]];
            const auto size = static_cast<u32>(fieldBytes(h, field).size());
            const std::span<const u8> was(change.was, size), becomes(change.becomes, size);
            const u64 place = offsetOf(h, record, field.Offset);
            u8 now[kReferenceSize];
            u32 got = 0;
            if (place % kSector + size > kSector &&
                (tearsToBlank(h, field, was, becomes) || tearsToBlank(h, field, becomes, was)) &&
                readTable(h, place, now, size, &got, true) && got == size &&
                isLeft(h, field, {now, size}, change)) {
                any = true;
                if (!writeTable(h, place, kBetween, size)) return false;
            }
            change = {change.was + size, change.becomes + size};
        }
    }
    return !any || synchronise(fileno(h->TableFile));
}

/// Second pass: gives the records their new references. The number of records done.
template <typename Read>
u32 writeReferences(DbfBase* h, const Log& log, bool sure, Read read) {
    const u32 count = std::min(log.records, h->Header.RecordCount);
    if (!setApart(h, log, count)) return 0;
    for (u32 record = 0; record < count; ++record) {
        const Change change{log.was(record), log.becomes(record)};
        if (!read(record) || !setReferences(h, record, log.fields, change, sure) ||
            !writePacked(h, record)) {
            return record;
        }
    }
    return log.records;
}

/// Undoes a second pass that has come to a number of records, and the change of names; the old file
/// keeps its second one.
bool putBack(DbfBase* h, const Log& log, u32 count, const char* oldName) {
    for (u32 record = 0; record < count; ++record) {
        const Change change{log.becomes(record), log.was(record)};
        if (ReadRecord(h, record) == 0 || !setReferences(h, record, log.fields, change, false) ||
            !writePacked(h, record)) {
            return false;
        }
    }
    return synchronise(fileno(h->TableFile)) && addName(oldName, h->MemoFileName);
}

/// Ends the second pass. Whoever may read the old file may read the new one. The log must not come
/// back after a power cut: by then records may have moved.
int tidyFile(std::FILE* file, const MemoFamily& family, const char* oldName) {
    struct stat info;
    if (stat(oldName, &info) == 0) fchmod(fileno(file), info.st_mode);
    return tidyRebuild(file, family) && synchronise(fileno(file)) ? 1 : 0;
}

/// Where files cannot have two names the process may have been killed when the old file had lost
/// its first one: an abandoned rebuild and no memo file tell.
void restoreName(DbfBase* h, const char* oldName) {
    if (access(h->MemoFileName, F_OK) == 0) return;
    bool stopped = false;
    removeAbandoned(h->MemoFileName, [&stopped](std::FILE* left) {
        MemoHead head;
        stopped = stopped || (readMemoHead(left, &head) && head.hasLog());
        return false;
    });
    if (stopped) std::rename(oldName, h->MemoFileName);
}

bool createNewFile(DbfBase* h, const OldMemos& old, NewFile* file) {
    removeAbandoned(h->MemoFileName, [&old](std::FILE* left) {
        return isAbandonedRebuild(left) || isSameFile(fileId(left), fileId(old.file));
    });
    return file->create(h->MemoFileName);
}

/// Whether the old memo file may take a name.
bool mayReplace(const DbfBase* h, const char* oldName) {
    errno = 0;
    const std::optional<FileId> replaced = nameId(oldName);
    return (replaced || errno == ENOENT) && std::strcmp(oldName, h->MemoFileName) != 0 &&
           !isSameFile(replaced, fileId(h->TableFile)) &&
           !isSameFile(replaced, fileId(h->AliasFileName));
}

/// Exchanges the files, each of which is on the disk by then. Nothing when that is done, else what
/// packing comes to; the files have the names they had, or restoreName can give them back.
std::optional<int> takeNames(DbfBase* h, const char* oldName, NewFile* file) {
    // A "~" name that cannot be had is no failure.
    if (!addName(h->MemoFileName, oldName)) return 1;
    // Nor is a power cut to leave the old file without one.
    if (synchroniseFolder(h->MemoFileName) && file->take(h->MemoFileName)) return std::nullopt;
    // Where it could not have two names the old file has lost its first.
    if (access(h->MemoFileName, F_OK) != 0 && std::rename(oldName, h->MemoFileName) != 0) {
        file->abandon();  // for restoreName
    }
    return 0;
}

/// Drops the records that are marked deleted, all but count of them, as they have been read before.
/// What the log says of the others is then true of the disk, too.
bool dropRecords(DbfBase* h, ChangedRecords* records, u32 count) {
    if (count == h->Header.RecordCount) return true;
    return packRecords(h, true, records) != 0 && h->Header.RecordCount == count;
}

/// From the change of names on. read gives the records for the second pass.
template <typename Read>
int replaceMemos(DbfBase* h, const MemoFamily& family, const Log& log, const char* oldName,
                 NewFile* file, Read read) {
    if (const std::optional<int> ended = takeNames(h, oldName, file)) return *ended;
    u32 reached = 0;  // records that may have changed
    if (synchroniseFolder(h->MemoFileName)) {
        const u32 done = writeReferences(h, log, true, read);
        if (done == log.records && synchronise(fileno(h->TableFile)) &&
            releaseRebuild(file->stream())) {
            return tidyFile(file->stream(), family, oldName);
        }
        reached = std::min(done + 1, log.records);
    }
    putBack(h, log, reached, oldName);
    return 0;
}

int rebuild(DbfBase* h, const OldMemos& old, const char* oldName, bool drop) {
    ReferenceFields fields;
    findReferences(h, &fields);
    NewFile file;
    if (!createNewFile(h, old, &file)) return 0;
    MemoBuilder memos(file.stream(), old.family);
    ChangedRecords records(h);
    Bytes bytes;
    u32 count = 0;
    if (!memos.start(old.unit) ||
        !copyMemos(h, fields, old, drop, &memos, &records, &bytes, &count) ||
        !memos.complete(bytes, count) || !file.synchronise() || !synchronise(fileno(old.file)) ||
        (drop && !dropRecords(h, &records, count))) {
        return 0;
    }
    // The record step has had its reading, this step has one of its own.
    const auto read = [&](u32 record) {
        return drop ? ReadRecord(h, record) != 0 : records.readAgain(record);
    };
    return replaceMemos(h, old.family, Log{fields, bytes.data(), count}, oldName, &file, read);
}

/// The second pass of an earlier rebuild.
int finish(DbfBase* h, const MemoFamily& family, std::FILE* file, const MemoHead& head,
           const char* oldName) {
    ReferenceFields fields;
    RebuildLog left;
    findReferences(h, &fields);
    if (isLogCut(file, head)) return tidyFile(file, family, oldName);
    if (!readRebuildLog(file, head, &left)) return 0;
    if (left.size != u64{2} * fields.width * left.records) return 0;
    const auto read = [h](u32 record) { return ReadRecord(h, record) != 0; };
    const Log log{fields, left.bytes.get(), left.records};
    if (!synchroniseFolder(h->MemoFileName) || writeReferences(h, log, false, read) < log.records ||
        !synchronise(fileno(h->TableFile)) || !releaseRebuild(file)) {
        return 0;
    }
    return tidyFile(file, family, oldName);
}

}  // namespace

int packMemos(DbfBase* h, bool writable, bool drop) {
    const auto withoutMemos = [&] { return drop ? packRecords(h, writable) : 1; };
    const MemoFamily* family = memoFamily(h->Header.Version);
    if (h->FirstMemoField == -1 || family == nullptr) return withoutMemos();
    errno = 0;
    FileId id{};
    const OwnedFile file(openFile(h->MemoFileName, true, &id));
    if (!file) return errno == ENOENT ? withoutMemos() : 0;  // no memo file, no memos
    const Owned<char> oldName = tildeName(h->MemoFileName);
    if (!writable || !oldName || isTable(h, id)) return 0;
    if (!mayReplace(h, oldName.get())) return withoutMemos();
    MemoHead head;
    if (!readMemoHead(file.get(), &head)) return 0;
    OldMemos old{file.get(), *family, 0};
    readMemoUnit(head, *family, &old.unit);  // has a value for a short header, too
    FreeMemo(h);
    return rebuild(h, old, oldName.get(), drop);
}

int finishPackMemos(DbfBase* h, bool writable) {
    const MemoFamily* family = memoFamily(h->Header.Version);
    if (h->FirstMemoField == -1 || family == nullptr) return 1;
    const Owned<char> oldName = tildeName(h->MemoFileName);
    if (!oldName) return 0;
    if (writable) restoreName(h, oldName.get());
    const int unfinished = hasMemoLog(h);
    if (unfinished != 1) return unfinished == 0 ? 1 : 0;
    const OwnedFile file(Open_File(h->MemoFileName));
    MemoHead head;
    if (!writable || !file || !readMemoHead(file.get(), &head) || !head.hasLog()) return 0;
    return finish(h, *family, file.get(), head, oldName.get());
}

}  // namespace mira
