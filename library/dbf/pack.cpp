// Packing: the records that are not marked deleted move to the front, and the memo file is rebuilt
// with the memos that records refer to.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "dbf/edit.h"
#include "dbf/table/position.h"
#include "dbf/table/table.h"
#include "dbf/value/reference.h"
#include "internal/file.h"
#include "internal/restore.h"
#include "memo/memo.h"

namespace mira {

namespace {

enum PackMode : u32 { kPackAll = 0, kPackRecords = 1, kPackMemos = 2 };

bool isWritable(const DbfBase* h) {
    const int flags = fcntl(fileno(h->TableFile), F_GETFL);
    return flags != -1 && (flags & O_ACCMODE) != O_RDONLY;
}

/// Writes kept records to their new places. Without hooks, which may look at the file, they are
/// gathered and go out many at a time; a record's new place never lies behind one still unread.
class KeptRecords {
public:
    explicit KeptRecords(DbfBase* h)
        : h_(h),
          gather_(h->AfterRead == nullptr && h->BeforeWrite == nullptr),
          buffer_(gather_ ? allocate<u8>(kTransferSize) : nullptr) {}

    bool ready() const { return !gather_ || buffer_ != nullptr; }

    /// The record in RecordBuffer belongs at the next place.
    bool add(u32 from) {
        const u32 record = next_++;
        if (record == from) return true;
        if (!gather_) return WriteRecord(h_, record) != 0;
        const u32 length = h_->Header.RecordLength;
        if (used_ == 0) first_ = record;
        std::memcpy(buffer_.get() + used_, h_->RecordBuffer, length);
        used_ += length;
        return used_ + length <= kTransferSize || flush();
    }

    bool flush() {
        if (used_ == 0) return true;
        backUp(h_);
        h_->Modified = 1;
        const u32 count = used_;
        used_ = 0;
        return writeTable(h_, offsetOf(h_, first_), buffer_.get(), count);
    }

    u32 count() const { return next_; }

private:
    DbfBase* h_;
    bool gather_;
    Block<u8> buffer_;
    u32 used_ = 0;
    u32 first_ = 0;  ///< place of the first gathered record
    u32 next_ = 0;
};

/// Moves the records that are not marked deleted to the front and cuts the table behind them.
int packRecords(DbfBase* h) {
    KeptRecords kept(h);
    if (!kept.ready()) return 0;
    for (u32 i = 0; i < h->Header.RecordCount; ++i) {
        if (ReadRecord(h, i) == 0) {
            kept.flush();
            return 0;
        }
        if (h->RecordBuffer[0] != kDeleted && !kept.add(i)) return 0;
    }
    if (!kept.flush()) return 0;
    return kept.count() == h->Header.RecordCount ? 1 : Truncate(h, kept.count());
}

/// The name under which the old memo file stays: "~" for the first letter of the extension.
Block<char> oldMemoName(const char* name) {
    Block<char> old = copyText(name);
    char* dot = old != nullptr ? std::strrchr(old.get(), '.') : nullptr;
    if (dot == nullptr || dot[1] == 0) return nullptr;
    dot[1] = '~';
    return old;
}

/// The two memo files of a rebuild.
struct MemoCopy {
    const MemoFamily* family;
    std::FILE* from;
    u32 unit;  ///< of from
    std::FILE* to;
};

/// Copies the memo of a field and gives the field its new reference. Without one the field is
/// cleared, so that it can never show another memo's text; false when that loses a memo.
bool copyMemo(DbfBase* h, int field, const MemoCopy& copy) {
    const MemoReference old = memoReference(h, field);
    Block<char> memo;
    u32 length = 0;
    MemoRead found = MemoRead::None;
    if (old.block != 0 || old.length != 0) {
        std::clearerr(copy.from);  // a memo that cannot be read does not spoil the next
        found = readMemo(copy.from, *copy.family, copy.unit, old, kMemoNoLimit, &memo, &length);
    }
    ClearField(h, field);
    if (found != MemoRead::Found || length == 0) return found != MemoRead::Failed;
    if (!hasRoomForReference(h, field) || !seekTo(copy.to, 0)) return false;
    const u32 block = appendMemo(copy.to, *copy.family, memo.get(), length);
    if (block == 0) return false;
    setMemoReference(h, field, {block, length});
    return memoReference(h, field).block == block;  // digits may not fit
}

/// Copies the memos of all records.
int copyMemos(DbfBase* h, const MemoCopy& copy) {
    int result = 1;
    for (u32 i = 0; i < h->Header.RecordCount; ++i) {
        if (ReadRecord(h, i) == 0) {
            result = 0;
            continue;
        }
        for (int field = h->FirstMemoField; field < h->FieldCount; ++field) {
            if (if_memo_type(h, field) != 0 && !copyMemo(h, field, copy)) result = 0;
        }
        if (WriteRecord(h, i) == 0) result = 0;
    }
    return result;
}

/// Rebuilds the memo file, so that it holds only the memos that records refer to.
int packMemos(DbfBase* h) {
    const MemoFamily* family = memoFamily(h->Header.Version);
    if (h->FirstMemoField == -1 || family == nullptr) return 1;
    const Block<char> oldName = hasMemoName(h) ? oldMemoName(h->MemoFileName) : nullptr;
    if (!oldName) return 0;
    errno = 0;
    const OwnedFile from(Open_File(h->MemoFileName));
    if (!from) return errno == ENOENT ? 1 : 0;  // no memo file, no memos
    MemoCopy copy{family, from.get(), 0, nullptr};
    readMemoUnit(from.get(), *family, &copy.unit);  // has a value for a short header, too
    if (std::ferror(from.get()) != 0) return 0;
    // Takes the place of what an earlier rebuild has left.
    if (std::rename(h->MemoFileName, oldName.get()) != 0) return 1;
    const u32 kind = GetMemoType(h);
    if (CreateMemoFile(h->FileName, kind, copy.unit) == 0) return 0;
    GetMemoType(h);  // the new file, whatever other spellings the directory holds
    const OwnedFile to(Open_File(h->MemoFileName));
    if (!to) return 0;
    copy.to = to.get();
    return copyMemos(h, copy);
}

int pack(DbfBase* h, u32 mode) {
    if ((mode == kPackAll || mode == kPackRecords) && packRecords(h) == 0) return 0;
    return mode == kPackAll || mode == kPackMemos ? packMemos(h) : 1;
}

}  // namespace

int Pack(DbfBase* h, u32 mode) {
    if (hasView(h) || !isWritable(h)) return 0;
    const Restore physical(h->Reverse, 0);
    h->UseFilterIndex = 0;
    const int result = pack(h, mode);
    h->UseFilterIndex = 1;
    return result;
}

}  // namespace mira
