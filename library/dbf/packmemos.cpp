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

#include <algorithm>
#include <cerrno>
#include <cstring>

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

/// Wide text in a memo field holds no reference.
bool holdsReference(DbfBase* h, int field) {
    const unsigned length = GetLenField(h, field);
    return if_memo_type(h, field) != 0 && (length == 4 || length == 10);
}

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

/// Whether every byte is the old one or the new one: a write that stopped half-way leaves some of
/// each. Anything else has been stored meanwhile, and stays.
bool isEither(std::span<const u8> bytes, const u8* was, const u8* becomes) {
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (bytes[i] != was[i] && bytes[i] != becomes[i]) return false;
    }
    return true;
}

/// Puts references into RecordBuffer.
void setReferences(DbfBase* h, const ReferenceFields& fields, const u8* was, const u8* becomes) {
    for (u32 i = 0; i < fields.count; ++i) {
        const std::span<u8> bytes = fieldBytes(h, fields.numbers[i]);
        if (isEither(bytes, was, becomes)) std::copy_n(becomes, bytes.size(), bytes.begin());
        was += bytes.size();
        becomes += bytes.size();
    }
}

bool readRaw(DbfBase* h, u32 record) {
    const u32 length = h->Header.RecordLength;
    u32 got = 0;
    return readTable(h, offsetOf(h, record), h->RecordBuffer, length, &got) && got == length;
}

/// The records that AfterRead has changed. It is called once for a record, in the first pass; the
/// second takes what it made of the record from here.
class ChangedRecords {
public:
    explicit ChangedRecords(DbfBase* h) : h_(h) {}

    /// ReadRecord, remembered.
    bool read(u32 record) {
        if (!readRaw(h_, record)) return false;
        if (h_->AfterRead == nullptr) return true;
        const u32 length = h_->Header.RecordLength;
        u8* entry = changed_.add(sizeof record + length);
        if (entry == nullptr) return false;
        std::memcpy(entry, &record, sizeof record);
        std::memcpy(entry + sizeof record, h_->RecordBuffer, length);
        h_->AfterRead(h_);
        if (std::memcmp(entry + sizeof record, h_->RecordBuffer, length) == 0) {
            changed_.dropLast(sizeof record + length);
        } else {
            std::memcpy(entry + sizeof record, h_->RecordBuffer, length);
        }
        return true;
    }

    /// The record as read left it; to be called in the same order.
    bool readAgain(u32 record) {
        const u32 length = h_->Header.RecordLength;
        u32 next = kNoPosition;
        if (place_ < changed_.size()) std::memcpy(&next, changed_.data() + place_, sizeof next);
        if (next != record) return readRaw(h_, record);
        std::memcpy(h_->RecordBuffer, changed_.data() + place_ + sizeof next, length);
        place_ += sizeof next + length;
        return true;
    }

private:
    DbfBase* h_;
    Bytes changed_;  ///< record number and bytes
    std::size_t place_ = 0;
};

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
        found = readMemo(from.file, from.family, from.unit, old, kMemoNoLimit, &memo, &length);
    }
    ClearField(h, field);
    if (found != MemoRead::Found || length == 0) return found != MemoRead::Failed;
    const u32 block = hasRoomForReference(h, field) ? to->append(memo.get(), length) : 0;
    if (block == 0) return false;
    setMemoReference(h, field, {block, length});
    return memoReference(h, field).block == block;  // digits may not fit
}

/// First pass: copies the memos of all records and logs their references.
bool copyMemos(DbfBase* h, const ReferenceFields& fields, const OldMemos& from, MemoBuilder* to,
               u32 count, ChangedRecords* records, Bytes* log) {
    for (u32 record = 0; record < count; ++record) {
        u8* entry = nullptr;
        if (!records->read(record) || (entry = log->add(std::size_t{2} * fields.width)) == nullptr)
            return false;
        copyReferences(h, fields, entry);
        for (u32 i = 0; i < fields.count; ++i) {
            if (!copyMemo(h, fields.numbers[i], from, to)) return false;
        }
        copyReferences(h, fields, entry + fields.width);
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

/// Second pass: gives the records their new references. The number of records done.
template <typename Read>
u32 writeReferences(DbfBase* h, const Log& log, Read read) {
    PrivateState* const state = keepPrivate(h);
    if (state == nullptr) return 0;
    const u32 count = std::min(log.records, h->Header.RecordCount);
    for (u32 record = 0; record < count; ++record) {
        if (!read(record)) return record;
        setReferences(h, log.fields, log.was(record), log.becomes(record));
        const Restore packing(state->packing, true);  // BeforeWrite sees a record as it is to be
        if (InternalWriteRecord(h, record) == 0) return record;
    }
    return log.records;
}

/// Undoes a second pass that has come to a number of records, and the change of names; the old file
/// keeps its second one.
bool putBack(DbfBase* h, const Log& log, u32 count, const char* oldName) {
    for (u32 record = 0; record < count; ++record) {
        if (ReadRecord(h, record) == 0) return false;
        setReferences(h, log.fields, log.becomes(record), log.was(record));
        if (InternalWriteRecord(h, record) == 0) return false;
    }
    return addName(oldName, h->MemoFileName);
}

/// Ends the second pass. Whoever may read the old file may read the new one.
int tidyFile(std::FILE* file, const MemoFamily& family, const char* oldName) {
    struct stat info;
    if (stat(oldName, &info) == 0) fchmod(fileno(file), info.st_mode);
    return tidyRebuild(file, family) ? 1 : 0;
}

/// Where files cannot have two names the process may have been killed when the old file had lost
/// its first one: an abandoned rebuild and no memo file tell.
void restoreName(DbfBase* h, const char* oldName) {
    if (access(h->MemoFileName, F_OK) == 0) return;
    bool stopped = false;
    removeAbandoned(h->MemoFileName, [&stopped](std::FILE* left) {
        stopped = stopped || isUnfinished(left);
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
    const std::optional<FileId> replaced = nameId(oldName);
    return std::strcmp(oldName, h->MemoFileName) != 0 &&
           !isSameFile(replaced, fileId(h->TableFile)) &&
           !isSameFile(replaced, fileId(h->AliasFileName));
}

/// Exchanges the files, each of which is on the disk by then. Nothing when that is done, else what
/// packing comes to; the files have the names they had, or restoreName can give them back.
std::optional<int> takeNames(DbfBase* h, const OldMemos& old, const char* oldName, NewFile* file) {
    if (!file->synchronise() || fsync(fileno(old.file)) != 0) return 0;
    // A "~" name that cannot be had is no failure.
    if (!mayReplace(h, oldName) || !addName(h->MemoFileName, oldName)) return 1;
    if (file->take(h->MemoFileName)) return std::nullopt;
    // Where it could not have two names the old file has lost its first.
    if (access(h->MemoFileName, F_OK) != 0 && std::rename(oldName, h->MemoFileName) != 0) {
        file->abandon();  // for restoreName
    }
    return 0;
}

int rebuild(DbfBase* h, const OldMemos& old, const char* oldName) {
    ReferenceFields fields;
    findReferences(h, &fields);
    NewFile file;
    if (!createNewFile(h, old, &file)) return 0;
    MemoBuilder memos(file.stream(), old.family);
    ChangedRecords records(h);
    Bytes bytes;
    const u32 count = h->Header.RecordCount;
    if (!memos.start(old.unit) || !copyMemos(h, fields, old, &memos, count, &records, &bytes) ||
        !memos.complete(bytes, count)) {
        return 0;
    }
    if (const std::optional<int> ended = takeNames(h, old, oldName, &file)) return *ended;
    const Log log{fields, bytes.data(), count};
    const u32 done = writeReferences(h, log, [&](u32 record) { return records.readAgain(record); });
    if (done == count && releaseRebuild(file.stream())) {
        return tidyFile(file.stream(), old.family, oldName);
    }
    putBack(h, log, std::min(done + 1, count), oldName);
    return 0;
}

/// The second pass of an earlier rebuild.
int finish(DbfBase* h, const MemoFamily& family, std::FILE* file, const char* oldName) {
    ReferenceFields fields;
    RebuildLog left;
    findReferences(h, &fields);
    if (!readRebuildLog(file, &left)) return 0;
    if (left.size != u64{2} * fields.width * left.records) return 0;
    const auto read = [h](u32 record) { return ReadRecord(h, record) != 0; };
    const Log log{fields, left.bytes.get(), left.records};
    if (writeReferences(h, log, read) < log.records || !releaseRebuild(file)) return 0;
    return tidyFile(file, family, oldName);
}

}  // namespace

int packMemos(DbfBase* h, bool writable) {
    const MemoFamily* family = memoFamily(h->Header.Version);
    if (h->FirstMemoField == -1 || family == nullptr) return 1;
    errno = 0;
    FileId id{};
    const OwnedFile file(openFile(h->MemoFileName, true, &id));
    if (!file) return errno == ENOENT ? 1 : 0;  // no memo file, no memos
    const Owned<char> oldName = tildeName(h->MemoFileName);
    if (!writable || !oldName || isTable(h, id)) return 0;
    OldMemos old{file.get(), *family, 0};
    readMemoUnit(file.get(), *family, &old.unit);  // has a value for a short header, too
    FreeMemo(h);
    return std::ferror(file.get()) == 0 ? rebuild(h, old, oldName.get()) : 0;
}

int finishPackMemos(DbfBase* h, bool writable) {
    const MemoFamily* family = memoFamily(h->Header.Version);
    if (h->FirstMemoField == -1 || family == nullptr) return 1;
    const Owned<char> oldName = tildeName(h->MemoFileName);
    if (!oldName) return 0;
    if (writable) restoreName(h, oldName.get());
    const OwnedFile file(Open_File(h->MemoFileName));
    if (!isUnfinished(file.get())) return 1;
    return writable ? finish(h, *family, file.get(), oldName.get()) : 0;
}

}  // namespace mira
