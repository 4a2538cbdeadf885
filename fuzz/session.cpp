// A program of edits over a new table, followed step by step by a model: the records with their
// memos in plain vectors. Memo references are compared by the memos they lead to.
//
//   0  1  kind, width of the text field      then operations: a letter, of which the low five bits
//   count, and what it takes
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "property.h"
#include "support/reference.h"
#include "support/tables.h"

namespace test {
namespace {

constexpr u32 kKinds[] = {0, 1, 2, 3, 4, 7};
constexpr std::size_t kRows = 60;
constexpr std::size_t kMemoFile = 150000;  // from there on only short memos are added
constexpr std::size_t kLongMemo = 70000;   // more than is read of a dBase III memo
constexpr std::size_t kTextMemo = 65535;
constexpr int kWide = 3000;  // makes the records fill more than one transfer buffer

enum Columns : int { kName, kNote, kCount, kPicture, kDecimal, kFields = 14 };
constexpr char kTypes[] = "CMIGNFDLTYBO@+";
constexpr int kMemos[] = {kNote, kPicture};

int seekElsewhere(DbfBase* h) { return InternalSeekRecord(h, 0); }

struct Record {
    std::string bytes;
    std::string memos[2];  // of NOTE and PICTURE
};

class Session {
public:
    Session(u32 kind, int width);
    ~Session();
    void step(Input& input);
    void compareAll() { compare(0, rows_.size()); }

private:
    void open();
    void append(Input&);
    void changeBuffer(Input&);
    void changeFlag(Input&);
    void changeFromOutside(Input&);
    void changeOption(Input&);
    void cut(Input&);
    void filter(Input&);
    void insert(Input&);
    void pack(Input&);
    void readRecords(Input&);
    void reopen(Input&);
    void setField(Input&);
    void setMemo(Input&);
    void sort(Input&);
    void writeRecord(Input&);
    void compare(std::string_view bytes, const Record& expected);
    /// Compares the state, the record buffer and the records from first to last.
    void compare(std::size_t first, std::size_t last);

    bool hasView() const { return filtered_ || !order_.empty(); }
    bool isFiltered() const { return filtered_ && h_->UseFilterIndex != 0; }
    /// Otherwise positions are records, and those after the last one are not refused.
    bool isMapped() const { return h_->Reverse != 0 || !order_.empty() || isFiltered(); }
    u32 viewCount() const { return static_cast<u32>(filtered_ ? filter_.size() : rows_.size()); }
    /// The record of a position; nothing where an operation has to refuse it.
    std::optional<u32> recordAt(u32 position) const;
    /// Any position, with a good chance of one in the view.
    u32 position(Input& input) const {
        const u32 any = input.byte();
        return viewCount() != 0 && any < 0xF0 ? any % viewCount() : viewCount() + any % 2;
    }
    std::size_t column(int field) const { return h_->Fields[field].Offset; }
    /// A record without its memo references.
    std::string plain(std::string_view bytes) const {
        std::string out(bytes);
        for (const int field : kMemos) {
            const std::size_t length = GetLenField(h_.get(), field);
            out.replace(column(field), length, length, '?');
        }
        return out;
    }
    std::string memoAt(std::string_view bytes, int field) const {
        return memo({h_.get(), bytes}, field, contentsOf(memoPath_)).value_or("");
    }
    /// Takes over what the record buffer holds after an operation that may leave anything there.
    void takeBuffer() {
        const std::string bytes = recordOf(h_.get());
        buffer_ = {bytes, {memoAt(bytes, kNote), memoAt(bytes, kPicture)}};
    }
    Record blank() {
        ClearRecord(h_.get());
        return {recordOf(h_.get()), {}};
    }
    void touch(std::size_t first, std::size_t last) { first_ = first, last_ = last; }
    void touchAll() { touch(0, kRows * 2); }
    void stamped() { endByte_ = stamped_ = true; }

    u32 kind_;
    std::string path_, memoPath_;
    Table h_;
    std::vector<Record> rows_;
    Record buffer_;
    std::optional<Record> saved_;
    std::vector<u32> filter_, order_;  // no order: empty
    bool filtered_ = false;
    bool endByte_ = false;              // the file ends with one
    bool stamped_ = true;               // the header in the file has the record count
    std::size_t first_ = 0, last_ = 0;  // records that the step may have touched
};

Session::Session(u32 kind, int width) : kind_(kind) {
    static const Folder folder;
    path_ = folder.file("t.dbf");
    DbfField fields[kFields];
    for (int i = 0; i < kFields; ++i) CreateField(&fields[i], "F", kTypes[i], 8);
    CreateField(&fields[kName], "NAME", 'C', width);
    CreateField(&fields[kCount], "COUNT", 'I', 4);
    fields[kDecimal].Decimals = 2;
    CHECK_EQUAL(CreateDatabase(path_.c_str(), fields, kFields, kind, 32, 1), 1);
    open();
}

Session::~Session() {
    std::string old = memoPath_;
    old.replace(old.rfind('.') + 1, 1, "~");
    for (const std::string& path :
         {path_, memoPath_, old, path_.substr(0, path_.size() - 3) + "bak"})
        std::remove(path.c_str());
}

void Session::open() {
    h_.reset(OpenBase(path_.c_str()));
    CHECK(h_ != nullptr && (h_->Status == 0 || !stamped_));
    memoPath_ = h_->MemoFileName;
    filtered_ = false;
    order_.clear();
    saved_.reset();
    const std::string opened = recordOf(h_.get());
    buffer_ = blank();
    CHECK(opened == buffer_.bytes);
}

std::optional<u32> Session::recordAt(u32 position) const {
    if (isMapped()) {
        if (position >= viewCount()) return std::nullopt;
        if (h_->Reverse != 0) position = viewCount() - 1 - position;
        if (position < order_.size()) position = order_[position];
    }
    if (isFiltered()) position = filter_[position];
    return position < rows_.size() ? std::optional(position) : std::nullopt;
}

void Session::compare(std::string_view bytes, const Record& expected) {
    CHECK_EQUAL(plain(bytes), plain(expected.bytes));
    for (const int field : kMemos)
        CHECK_EQUAL(memoAt(bytes, field), expected.memos[field == kPicture]);
}

void Session::compare(std::size_t first, std::size_t last) {
    const std::string_view file = contentsOf(path_);
    const std::size_t length = h_->Header.RecordLength, start = h_->Header.HeaderLength;
    const std::size_t end = start + rows_.size() * length;
    CHECK_EQUAL(file.size(), end + endByte_);
    CHECK(!endByte_ || file[end] == '\x1A');
    CHECK(!stamped_ || load(file, 4, 4) == rows_.size());
    CHECK_EQUAL(h_->Header.RecordCount, rows_.size());
    CHECK_EQUAL(reccount(h_.get()), viewCount());
    for (std::size_t i = first; i < std::min(last, rows_.size()); ++i)
        compare(file.substr(start + i * length, length), rows_[i]);
    compare(recordOf(h_.get()), buffer_);
}

void Session::setField(Input& input) {
    const int field = static_cast<int>(input.below(16));
    const std::string text = input.text(input.below(20));
    const double value = input.real();
    if (field == kNote || field == kPicture) return;
    if (field < h_->FieldCount) {
        const Row row{h_.get(), buffer_.bytes};
        const std::string bytes = stored(row, field, cString(text), value);
        buffer_.bytes.replace(column(field), bytes.size(), bytes);
    }
    SetValue(h_.get(), field, text.c_str(), value);
}

void Session::setMemo(Input& input) {
    const u32 way = input.byte();
    const int field = way % 2 == 0 ? kNote : kPicture;
    std::string memo = input.text(input.byte());
    if (contentsOf(memoPath_).size() < kMemoFile) {
        const u32 doublings = way / 2 % 8;
        for (u32 i = 0; i < doublings; ++i) memo += memo;
        if (doublings == 7) memo.resize(kLongMemo, 'x');
    }
    const bool asText = way / 16 % 2 != 0;
    if (asText) memo = cString(memo);
    const u32 number = static_cast<u32>(field), length = static_cast<u32>(memo.size());
    const int done = asText ? SetMemo(h_.get(), number, memo.c_str())
                            : SetMemoBuf(h_.get(), number, memo.data(), length);
    CHECK_EQUAL(done != 0, !memo.empty());
    if (done == 0) return;
    buffer_.bytes = recordOf(h_.get());
    if (kind_ == 0) memo = cString(memo.substr(0, std::min(memo.find('\x1A'), kTextMemo)));
    buffer_.memos[field == kPicture] = memo;
}

void Session::writeRecord(Input& input) {
    const u32 way = input.byte(), at = position(input);
    const std::optional<u32> found = recordAt(at);
    if (!found && !isMapped()) return;  // would write after the records
    if (found) touch(*found, *found + 1);
    if (way % 3 == 0) {
        CHECK_EQUAL(WriteRecord(h_.get(), at) != 0, found.has_value());
        if (found) rows_[*found] = buffer_;
    } else if (way % 3 == 1) {
        h_->DeleteFlag = input.byte();
        CHECK_EQUAL(WriteByte(h_.get(), at) != 0, found.has_value());
        if (found) rows_[*found].bytes[0] = static_cast<char>(h_->DeleteFlag);
    } else {
        const int field = static_cast<int>(way / 3 % h_->FieldCount);
        CHECK_EQUAL(WriteField(h_.get(), at, field) != 0, found.has_value());
        if (!found) return;
        const std::size_t length = GetLenField(h_.get(), field);
        rows_[*found].bytes.replace(column(field), length, buffer_.bytes, column(field), length);
        for (const int memo : kMemos)
            if (field == memo)
                rows_[*found].memos[memo == kPicture] = buffer_.memos[memo == kPicture];
    }
}

void Session::changeFlag(Input& input) {
    const u32 way = input.below(3), at = position(input);
    const std::optional<u32> found = recordAt(at);
    if (!found && !isMapped()) return;  // the end-of-file byte is a flag, too
    char none = ' ';
    char& flag = found ? rows_[*found].bytes[0] : none;
    if (found) touch(*found, *found + 1);
    auto* const change = way == 0 ? DeleteRecord : way == 1 ? RecallRecord : InverseRecord;
    CHECK_EQUAL(change(h_.get(), at), way < 2 || found ? 1 : 0);
    if (way == 0 || (way == 2 && flag != '*')) {
        flag = '*';
    } else if (flag == '*') {
        flag = ' ';
    }
}

void Session::append(Input& input) {
    const bool clear = input.below(2) == 0;
    if (rows_.size() >= kRows) return;
    if (clear) buffer_ = blank();
    CHECK_EQUAL(AppendBlank(h_.get(), clear), 1);
    while (!order_.empty() && order_.size() <= viewCount())
        order_.push_back(static_cast<u32>(order_.size()));
    if (filtered_) filter_.push_back(static_cast<u32>(rows_.size()));
    touch(rows_.size(), rows_.size() + 1);
    rows_.push_back(buffer_);
    stamped();
}

void Session::insert(Input& input) {
    if (rows_.size() >= kRows) return;
    const bool clear = input.below(2) != 0, reversed = h_->Reverse != 0;
    const u32 at = position(input), count = static_cast<u32>(rows_.size());
    const bool possible = !hasView() && (reversed ? at < count : at <= count);
    CHECK_EQUAL(Insert(h_.get(), at, clear) != 0, possible);
    if (!possible) return;
    if (clear) buffer_ = blank();
    rows_.insert(rows_.begin() + (reversed ? count - 1 - at : at), buffer_);
    touchAll();
    stamped();
}

void Session::cut(Input& input) {
    const u32 way = input.below(3), at = input.byte() % (static_cast<u32>(rows_.size()) + 2);
    const bool free = !hasView() && h_->Reverse == 0,
               possible = free && (way != 0 || at < rows_.size());
    const int done = way == 0   ? Delete(h_.get(), at)
                     : way == 1 ? Zap(h_.get())
                                : Truncate(h_.get(), at);
    CHECK_EQUAL(done != 0, possible);
    if (!possible) return;
    if (way == 0) rows_.erase(rows_.begin() + at);
    while (way == 2 && rows_.size() < at) {  // the end-of-file byte, then zeros
        rows_.push_back({std::string(h_->Header.RecordLength, '\0'), {}});
        if (std::exchange(endByte_, false)) rows_.back().bytes[0] = '\x1A';
    }
    if (way != 0) rows_.resize(way == 1 ? 0 : at);
    touchAll();
    stamped();
}

void Session::pack(Input& input) {
    const u32 mode = input.below(4);
    CHECK_EQUAL(Pack(h_.get(), mode) != 0, !hasView());
    if (hasView()) return;
    const auto deleted = [](const Record& row) { return row.bytes[0] == '*'; };
    if (mode < 2 && std::erase_if(rows_, deleted) != 0) stamped();
    touchAll();
    takeBuffer();
    if (mode % 2 != 0) return;
    // Records from before refer to the old memo file.
    if (rows_.empty()) buffer_ = blank();
    DupRecord(h_.get());
    saved_ = buffer_;
}

void Session::filter(Input& input) {
    const u32 way = input.below(4);
    order_.clear();
    if (way == 0) filtered_ = false;
    if (way == 0) return ClearAllFilter(h_.get());
    constexpr char kText[] = "COUNT>5|NAME<\"b\"";
    h_->SkipDeleted = way != 2;
    std::vector<u32> expected;
    for (u32 i = 0; i < viewCount(); ++i) {
        const std::optional<u32> found = recordAt(i);
        CHECK(found);
        const std::string& bytes = rows_[*found].bytes;
        const bool taken = way < 3 ? way == 2 || bytes[0] != '*' : passes({h_.get(), bytes}, kText);
        if (taken) expected.push_back(*found);
    }
    const char* const every = reinterpret_cast<const char*>(std::intptr_t{-1});
    CHECK(set_filter(h_.get(), way < 3 ? every : kText, nullptr) != nullptr);
    CHECK(std::vector<u32>(h_->FilterIndex, h_->FilterIndex + h_->FilterCount) == expected);
    filter_ = std::move(expected);
    filtered_ = true;
    takeBuffer();
}

void Session::sort(Input&) {
    if (h_->SortOrder != nullptr && h_->SortDescending != 0) {
        ClearSort(h_.get());
        h_->SortDescending = 0;
        return order_.clear();
    }
    h_->SortDescending = h_->SortOrder != nullptr;
    std::vector<std::pair<std::string, u32>> keys;
    for (u32 i = 0; i < viewCount(); ++i) {
        const Record& row = rows_[isFiltered() ? filter_[i] : i];
        keys.emplace_back(row.bytes.substr(1, column(kNote) - 1), i);
        std::replace(keys.back().first.begin(), keys.back().first.end(), '\0', ' ');
    }
    std::sort(keys.begin(), keys.end());
    if (h_->SortDescending != 0) std::reverse(keys.begin(), keys.end());
    CHECK_EQUAL(SortBase(h_.get(), "name", nullptr), 1);
    order_.clear();
    for (const auto& [key, i] : keys) order_.push_back(i);
    for (u32 i = 0; i < keys.size(); ++i) CHECK_EQUAL(GetOrder(h_.get(), i), order_[i]);
    takeBuffer();
}

void Session::changeFromOutside(Input& input) {
    const u32 way = input.below(4), at = input.byte();
    const Table other(OpenBase(path_.c_str()));
    if (way == 0 && !rows_.empty()) {  // seen at once, as another handle of this process does it
        touch(at % rows_.size(), at % rows_.size() + 1);
        CHECK_EQUAL(InverseRecord(other.get(), static_cast<u32>(first_)), 1);
        char& flag = rows_[first_].bytes[0];
        flag = flag == '*' ? ' ' : '*';
        return;
    }
    if (way == 1 && rows_.size() < kRows) {
        CHECK_EQUAL(AppendBlank(other.get(), 1), 1);
        rows_.push_back({recordOf(other.get()), {}});
        touchAll();
        stamped();
    } else if (way == 2 && !rows_.empty() && !hasView()) {
        rows_.resize(rows_.size() / 2);
        const std::size_t size = h_->Header.HeaderLength + rows_.size() * h_->Header.RecordLength;
        CHECK(truncate(path_.c_str(), static_cast<off_t>(size)) == 0);
        endByte_ = stamped_ = false;
    }
    const bool changed = h_->Header.RecordCount != rows_.size();
    CHECK_EQUAL(RefreshDatabase(h_.get()) != 0, changed);
}

void Session::readRecords(Input& input) {
    const bool one = input.below(2) == 0;
    const u32 first = position(input), last = one ? first : viewCount();
    for (u32 at = first; at <= last; ++at) {
        const std::optional<u32> found = recordAt(at);
        CHECK_EQUAL(ReadRecord(h_.get(), at) != 0, found.has_value());
        if (!found) {
            takeBuffer();
            continue;
        }
        buffer_ = rows_[*found];
        compare(recordOf(h_.get()), buffer_);
        CHECK(ReadByte(h_.get(), at) == 1 && h_->DeleteFlag == h_->RecordBuffer[0]);
    }
}

void Session::changeOption(Input& input) {
    const u32 way = input.below(8);
    if (way == 0) h_->Reverse = h_->Reverse == 0;
    if (way == 1) h_->UseFilterIndex ^= 1;
    if (way == 3) h_->AfterRead = h_->BeforeWrite = h_->BeforeWriteByte = seekElsewhere;
    if (way == 4) CHECK_EQUAL(WriteHeader(h_.get()), 1);
    if (way == 4) stamped();
}

void Session::changeBuffer(Input& input) {
    const u32 way = input.below(4);
    if (way == 0) CHECK_EQUAL(DupRecord(h_.get()), 1);
    if (way == 0) saved_ = buffer_;
    if (way == 1) DupToRecord(h_.get());
    if (way == 1 && saved_) buffer_ = *saved_;
    if (way == 2) ClearField(h_.get(), kNote);
    if (way == 2) takeBuffer();
    if (way == 3) buffer_ = blank();
}

void Session::reopen(Input&) {
    h_.reset();
    open();
}

void Session::step(Input& input) {
    static constexpr struct {
        char letter;
        void (Session::*run)(Input&);
    } operations[] = {{'a', &Session::append},
                      {'b', &Session::changeBuffer},
                      {'c', &Session::cut},
                      {'d', &Session::changeFlag},
                      {'f', &Session::setField},
                      {'i', &Session::insert},
                      {'m', &Session::setMemo},
                      {'n', &Session::reopen},
                      {'o', &Session::changeOption},
                      {'p', &Session::pack},
                      {'r', &Session::readRecords},
                      {'s', &Session::sort},
                      {'v', &Session::filter},
                      {'w', &Session::writeRecord},
                      {'x', &Session::changeFromOutside}};
    const char letter = static_cast<char>('`' + input.byte() % 32);
    for (const auto& operation : operations) {
        if (operation.letter != letter) continue;
        touch(0, 0);
        (this->*operation.run)(input);
        compare(first_, last_);
    }
}

void check(Input& input) {
    const u32 first = input.byte();
    Session session(kKinds[first / 4 % std::size(kKinds)], first % 4 == 3 ? kWide : 10);
    while (!input.empty()) session.step(input);
    session.compareAll();
}

}  // namespace

const Surface kSession{"session", check, 1024};

}  // namespace test
