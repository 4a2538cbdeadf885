#include "tables/change/change.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "tables/change/append.h"
#include "tables/change/backup.h"
#include "tables/change/watch.h"
#include "tables/open/open.h"
#include "tables/page/bytes.h"
#include "tables/page/refusal.h"
#include "tables/value/memo.h"

namespace mira::tables {
namespace {

namespace fs = std::filesystem;

constexpr u64 kFileMost = 0x7FFFFFFF;
constexpr std::size_t kWaitingBytes = 4 << 20;   // then it is written
constexpr std::size_t kWaitingPieces = 1 << 16;  // likewise
constexpr u64 kCopiedMost = 1 << 16;             // appended bytes that the journal tells again
constexpr u64 kLimitStep = 64 << 20;             // the files may grow by that before the next raise
constexpr u32 kMemoHeader = 512;                 // as far as another program's change of it shows
constexpr u32 kDatePlace = 1;
constexpr u8 kEndOfFile = 0x1A;
constexpr FileOf kFiles[] = {FileOf::Table, FileOf::Memos};

u64 recordPlace(const DbfBase& base, u32 record) {
    return base.Header.HeaderLength + u64{record} * base.Header.RecordLength;
}

std::string_view viewOf(const void* bytes, std::size_t count) {
    return {static_cast<const char*>(bytes), count};
}

}  // namespace

Change::Change(Table& table, const BackupPlan& backups)
    : table_(table), names_(table.path), journal_(names_) {
    openMemoFile();
    const u64 there = memosThere_ ? 3 : 1;
    journal_.add('B', FileOf::Table, there, memoName_, {});
    File& file = of(FileOf::Table);
    file.descriptor = fileno(table.base->TableFile);
    try {
        if (isHalfPacked(table_)) {
            refuse(table_.path, ": a pack was interrupted; `mira pack` finishes it");
        }
        for (File& each : files_) {
            const auto info = each.descriptor >= 0 ? statusOf(each.descriptor) : std::nullopt;
            each.sizeBefore = info ? static_cast<u64>(info->st_size) : 0;
            each.limit = each.written = each.end = each.sizeBefore;
        }
        before_ = stateNow(0);
        if (backups.wanted) {
            if (!journal_.synchronise()) refuseWrite("the journal");
            removeNewFiles(names_);  // of a program that was killed twice
            makeBackups(table_, names_, backups.copies);
        }
    } catch (...) {
        undo();
        throw;
    }
}

Change::~Change() { undo(); }

void Change::openMemoFile() {
    const fs::path path = memoFileOf(table_);
    if (path.empty()) return;
    memoName_ = path.filename().string();
    if (!names_.isMemoName(memoName_)) memoName_.clear();
    memos_ = openPlain(names_.beside(memoName_), O_RDWR);
    const auto info = memos_ ? statusOf(memos_.number()) : std::nullopt;
    memosThere_ = info && S_ISREG(info->st_mode) && !memoName_.empty();
    if (memosThere_) of(FileOf::Memos).descriptor = memos_.number();
}

void Change::refuseWrite(const char* what) const {
    const int error = errno;
    throw DiskError(textOf(table_.path, ": ", what, " cannot be written: ", std::strerror(error),
                           error == EIO ? "; is the disk full?" : ""));
}

// --------------------------------------------------------------------------------------------
// What is changed
// --------------------------------------------------------------------------------------------

void Change::put(const Column& column, const Encoded& encoded) {
    std::vector<u32>& offsets = touched_.offsets;
    if (std::find(offsets.begin(), offsets.end(), column.offset) == offsets.end()) {
        offsets.push_back(column.offset);
    }
    putBytes(table_, column, encoded);
    if (encoded.memo.empty() && !encoded.hasMemo) return;
    std::string image;
    encodeMemo(table_, encoded.memo, image);
    const u32 block = appendMemo(column, image);
    const auto length = static_cast<u32>(encoded.memo.size());
    if (!setMemoReference(table_, column, {true, block, length})) {
        refuse(table_.path, ": ", column.name, ": the memo's number ", block, " does not fit");
    }
}

void Change::readRecord(u32 record) {
    const u64 place = recordPlace(*table_.base, record);
    const File& file = of(FileOf::Table);
    const auto next = file.extents.lower_bound(place + table_.base->Header.RecordLength);
    const bool waits = next != file.extents.begin() && std::prev(next)->second > place;
    if (waits) write(false);
    tables::readRecord(table_, record);
}

void Change::writeRecord(u32 record) {
    add(FileOf::Table, recordPlace(*table_.base, record),
        viewOf(table_.base->RecordBuffer, table_.base->Header.RecordLength));
}

void Change::writeMark(u32 record, char mark) {
    touched_.marks = true;
    add(FileOf::Table, recordPlace(*table_.base, record), {&mark, 1});
}

/// What is no record behind the last one goes before another comes there. The backup has it, and
/// the journal begins after it.
void Change::cutStray() {
    if (table_.strayBytes == 0 || begun_) return;
    tables::cutStray(table_);
    File& file = of(FileOf::Table);
    const auto info = statusOf(file.descriptor);
    file.sizeBefore = info ? static_cast<u64>(info->st_size) : 0;
    file.limit = file.written = file.end = file.sizeBefore;
    before_.ends[0] = file.end;
    for (State& mark : marks_) mark.ends[0] = file.end;
}

void Change::appendRecord() {
    cutStray();
    DbfBase& base = *table_.base;
    const u32 record = base.Header.RecordCount;
    if (recordPlace(base, record) + base.Header.RecordLength > kFileMost) {
        refuse(table_.path, ": record ", u64{record} + 1,
               " would reach past 2 GiB, where tables end");
    }
    writeRecord(record);
    touched_.records = true;
    ++base.Header.RecordCount;
    counted_ = true;
}

/// Counter and unit of the memo file, before the first memo.
void Change::findMemoPlace(const Column& column) {
    if (unit_ != 0) return;
    const std::string fault = memoFileFault(table_);
    const std::string name = memoFileOf(table_);
    const std::string what =
        textOf(table_.path, ": ", column.name, ": the memo cannot be written to ", name);
    if (!fault.empty()) refuse(what, ": ", fault);
    u8 counter[4] = {};
    unit_ = memosThere_ ? memoUnit(table_) : 0;
    if (unit_ == 0 || !readAt(memos_.number(), 0, counter, sizeof counter)) {
        unit_ = 0;
        refuse(what, memosThere_ ? ", whose header is damaged" : ", which is no file of its own");
    }
    memoNext_ = memoNumber(table_, counter);
    before_.memoNext = memoNext_;
    for (State& mark : marks_) mark.memoNext = memoNext_;
}

u32 Change::appendMemo(const Column& column, std::string_view bytes) {
    constexpr u32 kSmallestHeader = 24;  // of dBase IV; others end before their first block, too
    findMemoPlace(column);
    const u64 place = u64{unit_} * memoNext_;
    if (memoNext_ == 0 || place < std::min<u64>(unit_, kSmallestHeader)) {
        refuse(table_.path, ": ", column.name, ": the memo cannot be written to ",
               memoFileOf(table_), ", whose header is damaged");
    }
    if (place + bytes.size() > kFileMost) {
        refuse(table_.path, ": ", column.name,
               ": the memo would reach past 2 GiB, where memo files end");
    }
    add(FileOf::Memos, place, bytes);
    const u32 block = memoNext_;
    memoNext_ += static_cast<u32>((bytes.size() + unit_ - 1) / unit_);
    return block;
}

void Change::add(FileOf to, u64 place, std::string_view bytes) {
    for (; bytes.size() > kPieceMost; place += kPieceMost, bytes.remove_prefix(kPieceMost)) {
        add(to, place, bytes.substr(0, kPieceMost));
    }
    File& file = of(to);
    const u64 end = place + bytes.size();
    changed_ = true;
    const auto next = file.extents.lower_bound(end);
    if (next != file.extents.begin() && std::prev(next)->second > place) write(false);
    Waiting* const last = file.waiting.empty() ? nullptr : &file.waiting.back();
    if (last != nullptr && !file.sealed && last->place + last->size == place &&
        last->size + bytes.size() <= kPieceMost) {
        file.extents[last->place] = end;
        last->size += bytes.size();
    } else {
        file.extents[place] = end;
        file.waiting.push_back({place, file.bytes.size(), bytes.size()});
    }
    file.bytes.append(bytes);
    file.sealed = false;
    file.end = std::max(file.end, end);
    if (file.bytes.size() >= kWaitingBytes || file.waiting.size() >= kWaitingPieces) write(false);
}

// --------------------------------------------------------------------------------------------
// On the disk
// --------------------------------------------------------------------------------------------

/// What the files were, and their headers, by which another program's work is told.
void Change::begin() {
    const DbfHeader& header = table_.base->Header;
    std::string sizes;
    for (const File& file : files_) {
        const auto bytes = bytesLe(file.sizeBefore);
        sizes.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    journal_.add('C', FileOf::Table, header.HeaderLength | u64{header.RecordLength} << 16, sizes,
                 {});
    const u64 lengths[] = {header.HeaderLength, kMemoHeader};
    for (const FileOf file : kFiles) {
        const u64 length = std::min(lengths[static_cast<std::size_t>(file)], of(file).sizeBefore);
        std::string bytes(static_cast<std::size_t>(length), '\0');
        if (length == 0) continue;
        if (!readAt(of(file).descriptor, 0, bytes.data(), bytes.size())) {
            throw DiskError(table_.path + ": the header cannot be read");
        }
        addPiece(file, 0, static_cast<u32>(length), bytes);
    }
    begun_ = true;
}

/// A piece whose first bytes are written over.
void Change::addPiece(FileOf to, u64 place, u32 oldSize, std::string_view bytes) {
    std::string old(oldSize, '\0');
    if (oldSize != 0 && !readAt(of(to).descriptor, place, old.data(), old.size())) {
        throw DiskError(table_.path + ": what is to be changed cannot be read");
    }
    const u64 at = journal_.add('P', to, place, old, bytes);
    pieces_.push_back({to, place, oldSize, static_cast<u32>(bytes.size()), at});
}

void Change::addPieces(FileOf from, std::size_t first, std::size_t last) {
    File& file = of(from);
    for (std::size_t i = first; i < last; ++i) {
        const Waiting& waiting = file.waiting[i];
        const std::string_view bytes(file.bytes.data() + waiting.at, waiting.size);
        const u64 end = waiting.place + waiting.size;
        const auto old = static_cast<u32>(
            waiting.place < file.written ? std::min(end, file.written) - waiting.place : 0);
        const u64 appended = waiting.size - old;
        const bool copied = copied_ + appended <= kCopiedMost;
        if (copied) copied_ += appended;
        const std::string_view told = copied ? bytes : bytes.substr(0, old);
        if (!told.empty()) addPiece(from, waiting.place, old, told);
    }
}

/// In the order of the marks, so that each knows how many pieces come before it.
void Change::addWaiting() {
    std::size_t done[2] = {};
    const auto upTo = [&](const std::size_t(&counts)[2]) {
        for (const FileOf file : kFiles) {
            const auto i = static_cast<std::size_t>(file);
            addPieces(file, done[i], counts[i]);
            done[i] = std::max(done[i], counts[i]);
        }
    };
    for (State& mark : marks_) {
        upTo(mark.waiting);
        if (mark.waiting[0] + mark.waiting[1] != 0) mark.pieces = pieces_.size();
        std::fill_n(mark.waiting, 2, std::size_t{0});
        std::fill_n(mark.bytes, 2, std::size_t{0});
    }
    const std::size_t all[] = {files_[0].waiting.size(), files_[1].waiting.size()};
    upTo({all[0], all[1]});
}

void Change::raiseLimits(bool last) {
    for (const FileOf file : kFiles) {
        File& each = of(file);
        if (each.end <= each.limit) continue;
        each.limit = last ? each.end : each.end + kLimitStep;
        journal_.add('L', file, each.limit, {}, {});
    }
}

void Change::write(bool last) {
    if (files_[0].waiting.empty() && files_[1].waiting.empty()) return;
    if (!begun_) begin();
    raiseLimits(last);
    addWaiting();
    if (journal_.isPending() && !journal_.synchronise()) refuseWrite("the journal");
    for (const FileOf file : kFiles) {
        File& each = of(file);
        for (const Waiting& waiting : each.waiting) {
            each.touched = true;
            const std::string_view bytes(each.bytes.data() + waiting.at, waiting.size);
            if (!writeOut(file, waiting.place, bytes)) {
                refuseWrite(file == FileOf::Table ? "a record" : "a memo");
            }
            each.written = std::max(each.written, waiting.place + waiting.size);
        }
        each.waiting.clear();
        each.bytes.clear();
        each.extents.clear();
    }
}

bool Change::writeOut(FileOf file, u64 place, std::string_view bytes) {
    if (file == FileOf::Memos) return writeAt(memos_.number(), place, bytes.data(), bytes.size());
    // Through the library, so that no handle goes on with what it has read ahead.
    return writeFileAt(table_.base->TableFile, static_cast<u32>(place), bytes.data(),
                       static_cast<u32>(bytes.size()));
}

void Change::flush() { write(false); }

/// The header, and what else is known only at the end.
void Change::addHeader() {
    DbfBase& base = *table_.base;
    StampHeader(&base.Header);
    const std::string image = headerImage(base.Header, base.HeaderSize);
    if (!counted_) {
        add(FileOf::Table, kDatePlace, std::string_view(image).substr(kDatePlace, 3));
    } else {
        for (const Column& column : table_.columns) {
            const u32 place = isCounting(column) ? counterPlace(table_, column) : 0;
            const auto next = bytesLe(column.nextValue);
            if (place != 0) add(FileOf::Table, place, viewOf(next.data(), next.size()));
        }
        add(FileOf::Table, 0, image);
        add(FileOf::Table, recordPlace(base, base.Header.RecordCount), viewOf(&kEndOfFile, 1));
    }
    if (memoNext_ == before_.memoNext) return;
    const auto next = memoBytes(table_, memoNext_);
    add(FileOf::Memos, 0, viewOf(next.data(), next.size()));
}

void Change::prepare() {
    if (changed_) addHeader();
    changed_ = false;
    write(true);
    for (const FileOf file : {FileOf::Memos, FileOf::Table}) {
        if (!of(file).touched || fsync(of(file).descriptor) == 0) continue;
        refuseWrite(file == FileOf::Table ? "the table" : "the memo file");
    }
    if (index_.name.empty() || !begun_) return;
    buildIndex(names_, index_, names_.table, journal_);
    indexed_ = true;
}

/// Ends the journal; false when the change is to be undone.
bool Change::end() {
    if (!indexed_) return journal_.end();
    try {
        return finishIndex(names_, journal_, index_.name);
    } catch (...) {
        open_ = false;
        throw;
    }
}

bool Change::finish() {
    if (!open_) return true;
    if (!end()) return false;
    open_ = false;
    // What opening would find now.
    table_.fileSize = of(FileOf::Table).written;
    if (counted_) table_.storedCount = table_.base->Header.RecordCount;
    return true;
}

void Change::commit() {
    try {
        prepare();
    } catch (const Refusal& refusal) {
        const std::string later = undo();
        if (later.empty()) throw;
        refuse(refusal.what(), "; ", later);
    }
    if (finish()) return;
    const std::string later = undo();
    refuse(table_.path, ": the change cannot be ended", later.empty() ? "" : "; ", later);
}

// --------------------------------------------------------------------------------------------
// The way back
// --------------------------------------------------------------------------------------------

Change::State Change::stateNow(int number) const {
    State state;
    state.number = number;
    for (std::size_t i = 0; i < std::size(files_); ++i) {
        state.waiting[i] = files_[i].waiting.size();
        state.bytes[i] = files_[i].bytes.size();
        state.ends[i] = files_[i].end;
    }
    state.pieces = pieces_.size();
    state.header = table_.base->Header;
    state.memoNext = memoNext_;
    for (const Column& column : table_.columns) state.nextValues.push_back(column.nextValue);
    return state;
}

void Change::restore(const State& state) {
    table_.base->Header = state.header;
    memoNext_ = state.memoNext;
    for (std::size_t i = 0; i < state.nextValues.size(); ++i) {
        table_.columns[i].nextValue = state.nextValues[i];
    }
    for (std::size_t i = 0; i < std::size(files_); ++i) {
        File& file = files_[i];
        file.waiting.resize(std::min(file.waiting.size(), state.waiting[i]));
        file.bytes.resize(std::min(file.bytes.size(), state.bytes[i]));
        file.end = state.ends[i];
        file.sealed = true;
        file.extents.clear();
        for (const Waiting& waiting : file.waiting) {
            file.extents[waiting.place] = waiting.place + waiting.size;
        }
    }
}

/// What has been written since a state.
bool Change::putBack(const State& state) {
    bool done = true;
    for (std::size_t i = 0; i < std::size(files_); ++i) {
        File& file = files_[i];
        // What waits at the state is not there yet, and comes later.
        const u64 end = std::max(file.sizeBefore, std::min(file.end, state.ends[i]));
        if (!file.touched || file.descriptor < 0) continue;
        const auto info = statusOf(file.descriptor);
        if (info && static_cast<u64>(info->st_size) <= end) continue;
        // What is written there next must not come to the disk before the cut.
        done = ftruncate(file.descriptor, static_cast<off_t>(end)) == 0 &&
               fsync(file.descriptor) == 0 && done;
        file.written = std::min(file.written, end);
    }
    std::string bytes;
    u64 back = 0, total = 0;
    for (std::size_t i = state.pieces; i < pieces_.size(); ++i) total += pieces_[i].oldSize;
    while (pieces_.size() > state.pieces) {
        const Piece& piece = pieces_.back();
        tellUndoing(back, total);
        back += piece.oldSize;
        const u64 end = of(piece.file).written;
        if (of(piece.file).touched) {
            if (!journal_.readOld(piece, bytes)) return false;
            // Behind the cut there is nothing to be put back.
            bytes.resize(static_cast<std::size_t>(
                std::min<u64>(bytes.size(), end > piece.place ? end - piece.place : 0)));
            done = (bytes.empty() || writeOut(piece.file, piece.place, bytes)) && done;
        }
        if (!done) return false;
        pieces_.pop_back();
    }
    return done;
}

void Change::mark(int number) {
    release(number);
    for (File& file : files_) file.sealed = true;
    marks_.push_back(stateNow(number));
}

void Change::release(int number) {
    while (!marks_.empty() && marks_.back().number >= number) marks_.pop_back();
}

void Change::undoTo(int number) {
    const auto oldest = std::find_if(marks_.begin(), marks_.end(),
                                     [&](const State& mark) { return mark.number >= number; });
    State state = oldest != marks_.end() ? *oldest : before_;
    const bool done = putBack(state);
    tellUndoing(0, 0);
    if (!done) refuseWrite("what was there before");
    restore(state);
    state.number = number;
    marks_.erase(oldest, marks_.end());
    marks_.push_back(std::move(state));
}

std::string Change::undo() {
    if (!open_) return "";
    open_ = false;
    bool done = true;
    if (begun_) {
        State start = before_;
        start.pieces = 0;
        done = putBack(start);
        tellUndoing(0, 0);
        for (const File& file : files_) {
            if (file.touched) done = fsync(file.descriptor) == 0 && done;
        }
    }
    restore(before_);
    // Backups and an index that are not whole yet.
    if (!begun_ || !index_.name.empty()) done = removeNewFiles(names_) && done;
    if (done && journal_.end()) return "";
    return textOf("what was there before cannot be put back now; `mira info ", table_.path,
                  "` does it");
}

}  // namespace mira::tables
