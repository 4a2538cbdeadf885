#include "tables/change/pack.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tables/change/append.h"
#include "tables/page/bytes.h"
#include "tables/page/refusal.h"
#include "tables/value/memo.h"

namespace mira::tables {
namespace {

constexpr std::size_t kBuffer = 1 << 18;
constexpr u64 kFileMost = 0x7FFFFFFF;
constexpr char kEndOfFile = 0x1A;

/// A new file, written from its beginning to its end.
class Written {
public:
    Written(Descriptor file, const std::string& path) : file_(std::move(file)), path_(path) {
        if (!file_) refuseWrite();
    }
    void put(std::string_view bytes) {
        buffer_.append(bytes);
        end_ += bytes.size();
        if (end_ > kFileMost) refuse(path_, ": would reach past 2 GiB");
        if (buffer_.size() >= kBuffer) flush();
    }
    /// Zeros up to a place.
    void padTo(u64 place) {
        if (place > end_) put(std::string(static_cast<std::size_t>(place - end_), '\0'));
    }
    void flush() {
        if (!writeAt(file_.number(), end_ - buffer_.size(), buffer_.data(), buffer_.size())) {
            refuseWrite();
        }
        buffer_.clear();
    }
    void patch(u64 place, std::string_view bytes) {
        if (!writeAt(file_.number(), place, bytes.data(), bytes.size())) refuseWrite();
    }
    u64 end() const { return end_; }

private:
    [[noreturn]] void refuseWrite() const {
        refuse(path_, ": the new files cannot be written: ", std::strerror(errno),
               errno == EIO ? "; is the disk full?" : "");
    }

    Descriptor file_;
    std::string path_;
    std::string buffer_;
    u64 end_ = 0;
};

/// A new memo file. The library lays its header.
class NewMemos {
public:
    NewMemos(Table& table, const Swap& swap) : table_(table) {
        DbfBase* const base = table.base.get();
        u32 unit = memoUnit(table);
        const u32 kind = GetMemoType(base);
        if (CreateMemoFile(swap.newTable().c_str(), kind, unit) == 0) {
            refuse(table.path, ": the new memo file cannot be written");
        }
        const auto names = swap.names().newMemos();
        const auto made = std::find_if(names.begin(), names.end(), isThere);
        if (made == names.end()) refuse(table.path, ": the new memo file cannot be written");
        Descriptor file = openPlain(*made, O_RDWR);
        const auto info = file ? statusOf(file.number()) : std::nullopt;
        std::string header(static_cast<std::size_t>(info ? info->st_size : 0), '\0');
        if (header.size() < 4 || !readAt(file.number(), 0, header.data(), header.size())) {
            refuse(table.path, ": the new memo file cannot be read");
        }
        unit_ = unit != 0 ? unit : 512;
        next_ = memoNumber(table, reinterpret_cast<const u8*>(header.data()));
        file_.emplace(std::move(file), table.path);
        file_->put(header);
    }

    /// The block of the memo.
    u32 add(std::string_view bytes) {
        image_.clear();
        encodeMemo(table_, bytes, image_);
        file_->padTo(u64{unit_} * next_);
        file_->put(image_);
        const u32 block = next_;
        next_ += static_cast<u32>((image_.size() + unit_ - 1) / unit_);
        return block;
    }

    void finish() {
        const auto next = memoBytes(table_, next_);
        file_->flush();
        file_->patch(0, {reinterpret_cast<const char*>(next.data()), next.size()});
    }

private:
    Table& table_;
    std::optional<Written> file_;
    u32 unit_ = 0, next_ = 0;
    std::string image_;
};

/// The columns whose references lead to memos.
std::vector<Column> referringColumns(const Table& table) {
    std::vector<Column> columns;
    for (const auto* list : {&table.columns, &table.system}) {
        for (const Column& column : *list) {
            const bool holds = column.field != kNoField && column.field < table.base->FieldCount &&
                               holdsReference(column) &&
                               (column.length == 4 || column.length == 10);
            if (holds) columns.push_back(column);
        }
    }
    std::sort(columns.begin(), columns.end(),
              [](const Column& a, const Column& b) { return a.field < b.field; });
    return columns;
}

/// The memos of the record in RecordBuffer.
void moveMemos(Table& table, const std::vector<Column>& columns, MemoReader& from, NewMemos& to) {
    for (const Column& column : columns) {
        std::string_view bytes;
        const MemoResult found = readMemo(from, table, column, &bytes);
        ClearField(table.base.get(), column.field);
        const bool there = found == MemoResult::Found || found == MemoResult::Cut;
        if (!there) continue;
        const auto length = static_cast<u32>(bytes.size());
        if (!setMemoReference(table, column, {true, to.add(bytes), length})) {
            refuse(table.path, ": ", column.name, ": the number of a memo does not fit");
        }
    }
}

/// Header, descriptors and back link.
std::string headOf(const Table& table) {
    const DbfBase& base = *table.base;
    std::string head(base.Header.HeaderLength, '\0');
    if (readFileAt(base.TableFile, 0, head.data(), static_cast<u32>(head.size())) != head.size()) {
        refuse(table.path, ": the header cannot be read");
    }
    return head;
}

/// The fixed part of it, as it is to be: the count, the date, and what opening repaired.
std::string fixedHead(const Table& table, u32 count) {
    DbfHeader header = table.base->Header;
    header.RecordCount = count;
    stampHeader(header);
    return headerImage(header, table.base->HeaderSize);
}

}  // namespace

void finishPack(Table& table) {
    constexpr u32 kMemosOnly = 2;
    if (IsPackUnfinished(table.base.get()) == 0) return;
    if (Pack(table.base.get(), kMemosOnly) != 0) return;
    refuse(table.path,
           ": cannot be packed: the disk may be full, or the log of an interrupted "
           "pack damaged. No record and no memo is lost");
}

void packInto(Table& table, const Swap& swap, Kept kept, const std::function<void()>& step) {
    DbfBase* const base = table.base.get();
    const std::vector<Column> columns = referringColumns(table);
    MemoReader from;
    std::optional<NewMemos> memos;
    // Without a memo file the references stay as they are.
    if (!columns.empty() && openMemos(from, table)) memos.emplace(table, swap);
    Written to(openPlain(swap.newTable(), O_RDWR | O_CREAT | O_EXCL), table.path);
    to.put(headOf(table));
    u32 count = 0;
    const u32 records = kept == Kept::None ? 0 : base->Header.RecordCount;
    for (u32 record = 0; record < records; ++record) {
        readRecord(table, record);
        step();
        if (isDeleted(table)) continue;
        if (memos) moveMemos(table, columns, from, *memos);
        to.put({reinterpret_cast<const char*>(base->RecordBuffer), base->Header.RecordLength});
        ++count;
    }
    to.put({&kEndOfFile, 1});
    to.flush();
    to.patch(0, fixedHead(table, count));
    if (memos) memos->finish();
}

}  // namespace mira::tables
