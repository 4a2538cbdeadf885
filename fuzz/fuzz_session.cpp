// A program of edits over a new table, followed step by step by a model: the records with their
// memos in plain vectors. Memo references are compared by the memos they lead to.
//
//   0  1  kind, width of the text field      then one operation after the other
#include "support.h"

using namespace fuzz;

namespace {

constexpr std::size_t kLargest = 4096;
constexpr std::size_t kRows = 60;
constexpr std::size_t kMemoFile = 150000;  // from there on only short memos are added
constexpr std::size_t kLongMemo = 70000;   // more than is read of a dBase III memo
constexpr u32 kWide = 3000;                // makes the records fill more than one transfer buffer

enum Columns : int { kName, kNote, kCount, kPicture, kFirstOther };
constexpr char kOtherTypes[] = "NFDLTYBO@+";

const Directory directory;

int seekElsewhere(DbfBase* h) { return InternalSeekRecord(h, 0); }

struct Row {
    std::string bytes;
    std::string memos[2];
};

class Session {
public:
    Session(u32 kind, u32 width) : kind_(kind), path_(directory.file("t.dbf")) {
        std::vector<DbfField> fields(kFirstOther + sizeof kOtherTypes - 1);
        CreateField(&fields[kName], "NAME", 'C', static_cast<int>(width));
        CreateField(&fields[kNote], "NOTE", 'M', 10);
        CreateField(&fields[kCount], "COUNT", 'I', 4);
        CreateField(&fields[kPicture], "PICTURE", 'G', 10);
        for (std::size_t i = kFirstOther; i < fields.size(); ++i) {
            const char type = kOtherTypes[i - kFirstOther];
            CreateField(&fields[i], "F", type, 8);
            if (type == 'N') fields[i].Decimals = 2;
        }
        FUZZ_CHECK(CreateDatabase(path_.c_str(), fields.data(), static_cast<int>(fields.size()),
                                  kind, 32, 1) == 1);
        open();
    }
    ~Session() {
        for (const std::string& name : {path_, memoPath_, oldMemoPath(), directory.file("t.bak")}) {
            std::remove(name.c_str());
        }
    }

    void step(Input& input);
    /// Compares everything with the model.
    void compare();

private:
    void open();
    void reopen();
    void setField(Input&);
    void setMemo(Input&);
    void writeRecord(Input&);
    void changeFlag(Input&);
    void append(char clear);
    void insert(Input&);
    void cut(Input&);
    void pack(u32 mode);
    void setFilter(Input&);
    void sort();
    void changeFromOutside(Input&);
    void readRecords(Input&);
    void changeOption(Input&);

    bool hasView() const { return filter_ || order_; }
    bool isFiltered() const { return filter_ && h_->UseFilterIndex != 0; }
    /// Otherwise positions are records, and those behind the last one are not refused.
    bool isMapped() const { return h_->Reverse != 0 || order_ || isFiltered(); }
    u32 viewCount() const { return static_cast<u32>(filter_ ? filter_->size() : rows_.size()); }
    /// The record of a position; nothing where an operation has to refuse it.
    std::optional<u32> recordAt(u32 position) const;
    /// Any position, with a good chance of one in the view.
    u32 position(Input& input) const {
        const u32 any = input.byte();
        return viewCount() != 0 && any < 0xF0 ? any % viewCount() : viewCount() + any % 2;
    }
    std::size_t column(int field) const { return h_->Fields[field].Offset; }
    std::string oldMemoPath() const {
        std::string name = memoPath_;
        return name.replace(name.rfind('.') + 1, 1, "~");
    }
    /// Compares records but for their memo references.
    bool same(std::string_view a, std::string_view b) const {
        const std::size_t note = column(kNote), length = h_->Fields[kNote].Length;
        const std::size_t picture = column(kPicture), middle = note + length;
        return a.substr(0, note) == b.substr(0, note) &&
               a.substr(middle, picture - middle) == b.substr(middle, picture - middle) &&
               a.substr(picture + length) == b.substr(picture + length);
    }
    /// A memo as it comes back.
    std::string visible(std::string memo) const {
        if (kind_ != 0) return memo;
        memo.resize(std::min({memo.size(), memo.find('\x1A'), std::size_t{65535}}));
        return memo.substr(0, memo.find('\0'));
    }
    std::string_view memoAt(std::string_view bytes, int field, std::string_view file) {
        return memoOf(h_.get(), field, bytes, file).value_or("");
    }
    /// Takes over what the record buffer holds after an operation that may leave anything there.
    void takeBuffer() {
        const std::string file = readFile(memoPath_);
        buffer_.bytes = record(h_.get());
        for (const int field : {kNote, kPicture})
            buffer_.memos[field == kPicture] = memoAt(buffer_.bytes, field, file);
    }
    Row blank() {
        ClearRecord(h_.get());
        return {std::string(record(h_.get())), {}};
    }
    void stamped() { endByte_ = stamped_ = true; }

    u32 kind_;
    std::string path_, memoPath_;
    Table h_;
    std::vector<Row> rows_;
    Row buffer_;
    std::optional<Row> saved_;
    std::optional<std::vector<u32>> filter_, order_;
    bool endByte_ = false;  // the file ends with one
    bool stamped_ = true;   // the header in the file has the record count
    bool backedUp_ = false;
    std::string image_;  // the table file after the last step
};

void Session::open() {
    h_.reset(OpenBase(path_.c_str()));
    FUZZ_CHECK(h_ != nullptr && (h_->Status == 0 || !stamped_));
    memoPath_ = h_->MemoFileName;
    filter_.reset();
    order_.reset();
    saved_.reset();
    backedUp_ = false;
    const std::string opened(record(h_.get()));
    buffer_ = blank();
    FUZZ_CHECK(opened == buffer_.bytes);
}

std::optional<u32> Session::recordAt(u32 position) const {
    if (isMapped()) {
        if (position >= viewCount()) return std::nullopt;
        if (h_->Reverse != 0) position = viewCount() - 1 - position;
        if (order_ && position < order_->size()) position = (*order_)[position];
    }
    if (isFiltered()) position = (*filter_)[position];
    return position < rows_.size() ? std::optional(position) : std::nullopt;
}

void Session::compare() {
    std::string file = readFile(path_);
    const std::string memoFile = readFile(memoPath_);
    const std::size_t length = h_->Header.RecordLength;
    const std::size_t end = h_->Header.HeaderLength + rows_.size() * length;
    FUZZ_CHECK(file.size() == end + endByte_);
    FUZZ_CHECK(!endByte_ || file[end] == '\x1A');
    FUZZ_CHECK(!stamped_ || load(file, 4, 4, false) == rows_.size());
    FUZZ_CHECK(h_->Header.RecordCount == rows_.size() && reccount(h_.get()) == viewCount());
    for (std::size_t i = 0; i <= rows_.size(); ++i) {
        const bool inFile = i < rows_.size();
        const Row& row = inFile ? rows_[i] : buffer_;
        const std::string_view bytes =
            inFile ? std::string_view(file).substr(h_->Header.HeaderLength + i * length, length)
                   : record(h_.get());
        FUZZ_CHECK(same(bytes, row.bytes));
        FUZZ_CHECK(memoAt(bytes, kNote, memoFile) == row.memos[0]);
        FUZZ_CHECK(memoAt(bytes, kPicture, memoFile) == row.memos[1]);
    }
    if (h_->BackupDone != 0 && !backedUp_) FUZZ_CHECK(readFile(h_->BackupName) == image_);
    backedUp_ = h_->BackupDone != 0;
    image_ = std::move(file);
}

void Session::setField(Input& input) {
    const int field = static_cast<int>(input.below(h_->FieldCount + 1u));
    if (field == kNote || field == kPicture) return;
    const std::string text = input.text(input.below(20));
    std::string expected = buffer_.bytes;
    SetValue(h_.get(), field, text.c_str(), input.real());
    if (field < h_->FieldCount) {
        const std::size_t length = GetLenField(h_.get(), field);
        expected.replace(column(field), length, record(h_.get()).substr(column(field), length));
    }
    buffer_.bytes = expected;
}

void Session::setMemo(Input& input) {
    const int field = input.below(2) == 0 ? kNote : kPicture;
    std::string memo = input.text(input.byte());
    if (readFile(memoPath_).size() < kMemoFile) {
        const u32 doublings = input.below(8);
        for (u32 i = 0; i < doublings; ++i) memo += memo;
        if (doublings == 7) memo.resize(kLongMemo, 'x');
    }
    const bool asText = input.below(2) != 0;
    if (asText) memo.resize(std::strlen(memo.c_str()));
    const u32 number = static_cast<u32>(field);
    const int result =
        asText ? SetMemo(h_.get(), number, memo.c_str())
               : SetMemoBuf(h_.get(), number, memo.data(), static_cast<u32>(memo.size()));
    FUZZ_CHECK(result == !memo.empty());
    if (result == 0) return;
    buffer_.bytes = record(h_.get());
    buffer_.memos[field == kPicture] = visible(memo);
}

void Session::writeRecord(Input& input) {
    const u32 way = input.below(3);
    const u32 at = position(input);
    const std::optional<u32> found = recordAt(at);
    if (!found && !isMapped()) return;  // would write behind the records
    const int result = found ? 1 : 0;
    if (way == 0) {
        FUZZ_CHECK(WriteRecord(h_.get(), at) == result);
        if (found) rows_[*found] = buffer_;
    } else if (way == 1) {
        h_->DeleteFlag = input.byte();
        FUZZ_CHECK(WriteByte(h_.get(), at) == result);
        if (found) rows_[*found].bytes[0] = static_cast<char>(h_->DeleteFlag);
    } else {
        const int field = static_cast<int>(input.below(h_->FieldCount));
        FUZZ_CHECK(WriteField(h_.get(), at, field) == result);
        if (!found) return;
        const std::size_t length = GetLenField(h_.get(), field);
        rows_[*found].bytes.replace(column(field), length, buffer_.bytes, column(field), length);
        if (field == kNote || field == kPicture)
            rows_[*found].memos[field == kPicture] = buffer_.memos[field == kPicture];
    }
}

void Session::changeFlag(Input& input) {
    const u32 way = input.below(3);
    const u32 at = position(input);
    const std::optional<u32> found = recordAt(at);
    if (!found && !isMapped()) return;  // the end-of-file byte is a flag, too
    char* flag = found ? &rows_[*found].bytes[0] : nullptr;
    if (way == 0) {
        FUZZ_CHECK(DeleteRecord(h_.get(), at) == 1);
        if (found) *flag = '*';
    } else if (way == 1) {
        FUZZ_CHECK(RecallRecord(h_.get(), at) == 1);
        if (found && *flag == '*') *flag = ' ';
    } else {
        FUZZ_CHECK(InverseRecord(h_.get(), at) == found.has_value());
        if (found) *flag = *flag == '*' ? ' ' : '*';
    }
}

void Session::append(char clear) {
    if (rows_.size() >= kRows) return;
    if (clear != 0) buffer_ = blank();
    FUZZ_CHECK(AppendBlank(h_.get(), clear) == 1);
    if (order_) {
        for (u32 i = static_cast<u32>(order_->size()); i <= viewCount(); ++i) order_->push_back(i);
    }
    if (filter_) filter_->push_back(static_cast<u32>(rows_.size()));
    rows_.push_back(buffer_);
    stamped();
}

void Session::insert(Input& input) {
    if (rows_.size() >= kRows) return;
    const bool clear = input.below(2) != 0;
    const u32 at = position(input);
    const u32 count = static_cast<u32>(rows_.size());
    const bool reversed = h_->Reverse != 0;
    const bool possible = !hasView() && (reversed ? at < count : at <= count);
    FUZZ_CHECK(Insert(h_.get(), at, clear ? 1 : 0) == possible);
    if (!possible) return;
    if (clear) buffer_ = blank();
    rows_.insert(rows_.begin() + (reversed ? count - 1 - at : at), buffer_);
    stamped();
}

void Session::cut(Input& input) {
    const u32 way = input.below(3);
    const u32 at = input.byte() % (static_cast<u32>(rows_.size()) + 2);
    const bool free = !hasView() && h_->Reverse == 0;
    if (way == 0) {
        const bool possible = free && at < rows_.size();
        FUZZ_CHECK(Delete(h_.get(), at) == possible);
        if (!possible) return;
        rows_.erase(rows_.begin() + at);
    } else {
        const u32 count = way == 1 ? 0 : at;
        FUZZ_CHECK((way == 1 ? Zap(h_.get()) : Truncate(h_.get(), count)) == free);
        if (!free) return;
        while (rows_.size() < count) {  // the end-of-file byte, then zeros
            rows_.push_back({std::string(h_->Header.RecordLength, '\0'), {}});
            if (endByte_) rows_.back().bytes[0] = '\x1A';
            endByte_ = false;
        }
        rows_.resize(count);
    }
    stamped();
}

void Session::pack(u32 mode) {
    FUZZ_CHECK(Pack(h_.get(), mode) == !hasView());
    if (hasView()) return;
    if (mode < 2 && std::erase_if(rows_, [](const Row& row) { return row.bytes[0] == '*'; }) != 0)
        stamped();
    takeBuffer();
    if (mode % 2 != 0) return;
    // Records from before refer to the old memo file.
    if (rows_.empty()) buffer_ = blank();
    DupRecord(h_.get());
    saved_ = buffer_;
}

void Session::setFilter(Input& input) {
    const u32 way = input.below(4);
    if (way == 0) {
        ClearAllFilter(h_.get());
        filter_.reset();
        order_.reset();
        return;
    }
    order_.reset();
    std::vector<u32> view, present;
    for (u32 i = 0; i < viewCount(); ++i) {
        const std::optional<u32> found = recordAt(i);
        FUZZ_CHECK(found);
        view.push_back(*found);
        if (rows_[*found].bytes[0] != '*') present.push_back(*found);
    }
    h_->SkipDeleted = way != 2;
    const char* const every = reinterpret_cast<const char*>(std::intptr_t{-1});
    FUZZ_CHECK(set_filter(h_.get(), way < 3 ? every : "COUNT>5|NAME<\"b\"", nullptr) != nullptr);
    std::vector<u32> index(h_->FilterIndex, h_->FilterIndex + h_->FilterCount);
    if (way == 3) {  // any of them, in the order of the view
        auto place = present.begin();
        for (const u32 r : index) {
            place = std::find(place, present.end(), r);
            FUZZ_CHECK(place != present.end());
        }
    } else {
        FUZZ_CHECK(index == (way == 2 ? view : present));
    }
    filter_ = std::move(index);
    takeBuffer();
}

void Session::sort() {
    if (h_->SortOrder != nullptr && h_->SortDescending != 0) {
        ClearSort(h_.get());
        order_.reset();
        h_->SortDescending = 0;
        return;
    }
    h_->SortDescending = h_->SortOrder != nullptr;
    std::vector<std::pair<std::string, u32>> keys;
    for (u32 i = 0; i < viewCount(); ++i) {
        const Row& row = rows_[isFiltered() ? (*filter_)[i] : i];
        keys.emplace_back(row.bytes.substr(1, column(kNote) - 1), i);
        std::replace(keys.back().first.begin(), keys.back().first.end(), '\0', ' ');
    }
    std::sort(keys.begin(), keys.end());
    if (h_->SortDescending != 0) std::reverse(keys.begin(), keys.end());
    FUZZ_CHECK(SortBase(h_.get(), "name", nullptr) == 1);
    order_.reset();
    if (!keys.empty()) order_.emplace();
    for (const auto& [key, i] : keys) order_->push_back(i);
    for (u32 i = 0; i < keys.size(); ++i) FUZZ_CHECK(GetOrder(h_.get(), i) == (*order_)[i]);
    takeBuffer();
}

void Session::changeFromOutside(Input& input) {
    const u32 way = input.below(4);
    if (way == 0 && !rows_.empty()) {  // seen at once, as another handle of this process does it
        const u32 at = input.byte() % static_cast<u32>(rows_.size());
        FUZZ_CHECK(InverseRecord(Table(OpenBase(path_.c_str())).get(), at) == 1);
        char& flag = rows_[at].bytes[0];
        flag = flag == '*' ? ' ' : '*';
        return;
    }
    if (way == 1 && rows_.size() < kRows) {
        const Table other(OpenBase(path_.c_str()));
        FUZZ_CHECK(AppendBlank(other.get(), 1) == 1);
        rows_.push_back({std::string(record(other.get())), {}});
        stamped();
    } else if (way == 2 && !rows_.empty() && !hasView()) {
        rows_.resize(rows_.size() / 2);
        std::filesystem::resize_file(
            path_, h_->Header.HeaderLength + rows_.size() * h_->Header.RecordLength);
        endByte_ = stamped_ = false;
    }
    const bool changed = h_->Header.RecordCount != rows_.size();
    FUZZ_CHECK(RefreshDatabase(h_.get()) == (changed ? 1 : 0));
}

void Session::readRecords(Input& input) {
    const u32 first = position(input);
    const u32 last = input.below(2) == 0 ? first : viewCount();
    for (u32 at = first; at <= last; ++at) {
        const std::optional<u32> found = recordAt(at);
        FUZZ_CHECK(ReadRecord(h_.get(), at) == found.has_value());
        if (!found) {
            takeBuffer();
            continue;
        }
        buffer_ = rows_[*found];
        FUZZ_CHECK(same(record(h_.get()), buffer_.bytes));
        for (const int field : {kNote, kPicture}) {
            FUZZ_CHECK(readMemo(h_.get(), field).value_or("") == buffer_.memos[field == kPicture]);
        }
        FUZZ_CHECK(ReadByte(h_.get(), at) == 1 && h_->DeleteFlag == h_->RecordBuffer[0]);
    }
}

void Session::changeOption(Input& input) {
    switch (input.below(9)) {
        case 0:
            h_->Reverse = h_->Reverse == 0;
            break;
        case 1:
            h_->BackupEnabled = 1;
            break;
        case 2:
            FUZZ_CHECK(DupRecord(h_.get()) == 1);
            saved_ = buffer_;
            break;
        case 3:
            DupToRecord(h_.get());
            if (saved_) buffer_ = *saved_;
            break;
        case 4:
            FUZZ_CHECK(WriteHeader(h_.get()) == 1);
            stamped();
            break;
        case 5:
            ClearField(h_.get(), kNote);
            takeBuffer();
            FUZZ_CHECK(buffer_.memos[0].empty());
            break;
        case 6:
            h_->UseFilterIndex ^= 1;
            break;
        case 7:
            h_->AfterRead = h_->BeforeWrite = h_->BeforeWriteByte = seekElsewhere;
            break;
        default:
            buffer_ = blank();
    }
}

void Session::reopen() {
    h_.reset();
    open();
}

void Session::step(Input& input) {
    switch (input.below(20)) {
        case 0:
        case 1:
            return setField(input);
        case 2:
        case 3:
            return setMemo(input);
        case 4:
        case 5:
            return writeRecord(input);
        case 6:
            return changeFlag(input);
        case 7:
            return append(1);
        case 8:
            return append(0);
        case 9:
        case 10:
            return insert(input);
        case 11:
            return cut(input);
        case 12:
            return pack(input.below(4));
        case 13:
            return setFilter(input);
        case 14:
            return sort();
        case 15:
            return changeFromOutside(input);
        case 16:
        case 17:
            return readRecords(input);
        case 18:
            return changeOption(input);
        default:
            return reopen();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > kLargest) return 0;
    Input input(data, size);
    constexpr u32 kinds[] = {0, 1, 2, 3, 4, 7};
    const u32 kind = kinds[input.below(6)];
    Session session(kind, input.below(4) == 0 ? kWide : 10);
    session.compare();
    while (!input.empty()) {
        session.step(input);
        session.compare();
    }
    return 0;
}
