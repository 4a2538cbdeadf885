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
constexpr std::size_t kOtherLong = 9000;   // in other formats
constexpr std::size_t kTextMemo = 65535;
constexpr int kWide = 3000;    // makes the records fill more than one transfer buffer
constexpr u32 kChanges = 200;  // more than a pack makes
constexpr int kCostly = 10;    // slow operations of a session, so that no input takes long

enum Columns : int { kName, kNote, kCount, kPicture, kDecimal, kText, kFields = 15 };
constexpr char kTypes[] = "CMIGNCFDLTYBO@+";
constexpr int kMemos[] = {kNote, kPicture};

struct Record {
    std::string bytes;
    std::string memos[2];  // of NOTE and PICTURE
};

struct Session {
    u32 kind;
    std::string path, memoPath = {};
    Table table = {};
    DbfBase* h = nullptr;
    std::vector<Record> rows = {};
    Record buffer = {}, saved = {};
    std::vector<u32> index = {}, order = {};  // no order: empty
    bool filtered = false;
    bool endByte = false;             // the file ends with one
    bool stamped = true;              // the header in the file has the record count
    std::size_t first = 0, last = 0;  // records that the step may have touched
    int costly = 0;                   // slow operations so far

    void create(int width) {
        DbfField fields[kFields];
        for (int i = 0; i < kFields; ++i) CreateField(&fields[i], "F", kTypes[i], 8);
        CreateField(&fields[kName], "NAME", 'C', 10);
        CreateField(&fields[kText], "TEXT", 'C', width);
        CreateField(&fields[kCount], "COUNT", 'I', 4);
        fields[kDecimal].Decimals = 2;
        CHECK_EQUAL(CreateDatabase(path.c_str(), fields, kFields, kind, 32, 1), 1);
        open();
    }
    void open() {
        table.reset(OpenBase(path.c_str()));
        h = table.get();
        CHECK(h != nullptr && (h->Status == 0 || !stamped));
        memoPath = h->MemoFileName;
        filtered = false;
        order.clear();
        const std::string opened = recordOf(h);
        buffer = saved = blank();
        CHECK_EQUAL(opened, buffer.bytes);
    }
    void removeFiles() const {
        const std::size_t dot = path.rfind('.') + 1;
        for (const std::string& ext :
             {"dbf"s, "bak"s, memoPath.substr(dot), "~" + memoPath.substr(dot + 1)})
            std::remove((path.substr(0, dot) + ext).c_str());
    }

    bool hasView() const { return filtered || !order.empty(); }
    bool isFiltered() const { return filtered && h->UseFilterIndex != 0; }
    /// Otherwise positions are records, and those after the last one are not refused.
    bool isMapped() const { return h->Reverse != 0 || !order.empty() || isFiltered(); }
    u32 viewCount() const { return static_cast<u32>(filtered ? index.size() : rows.size()); }
    /// Any position, with a good chance of one in the view.
    u32 position(Input& input) const {
        const u32 any = input.byte();
        return viewCount() != 0 && any < 0xF0 ? any % viewCount() : viewCount() + any % 2;
    }
    /// The record of a position; nothing where an operation has to refuse it.
    std::optional<u32> recordAt(u32 at) const {
        if (isMapped() && at >= viewCount()) return std::nullopt;
        if (h->Reverse != 0) at = viewCount() - 1 - at;
        if (at < order.size()) at = order[at];
        if (isFiltered()) at = index[at];
        return at < rows.size() ? std::optional(at) : std::nullopt;
    }
    std::size_t column(int field) const { return h->Fields[field].Offset; }
    std::size_t width(int field) const { return GetLenField(h, field); }
    /// A record without its memo references.
    std::string plain(std::string_view bytes) const {
        std::string out(bytes);
        for (const int field : kMemos) out.replace(column(field), width(field), width(field), '?');
        return out;
    }
    std::string memoAt(std::string_view bytes, int field) const {
        return memo({h, bytes}, field, contentsOf(memoPath)).value_or("");
    }
    /// Takes over what the record buffer holds after an operation that may leave anything there.
    void takeBuffer() {
        const std::string bytes = recordOf(h);
        buffer = {bytes, {memoAt(bytes, kNote), memoAt(bytes, kPicture)}};
    }
    Record blank() const {
        ClearRecord(h);
        return {recordOf(h), {}};
    }
    void touch(std::size_t record) { first = record, last = record + 1; }
    void touchAll() { first = 0, last = 2 * kRows; }
    void setStamped() { endByte = stamped = true; }

    void compare(std::string_view bytes, const Record& expected) const {
        if (bytes != expected.bytes) CHECK_EQUAL(plain(bytes), plain(expected.bytes));
        const std::string_view memos = contentsOf(memoPath);
        for (const int field : kMemos)
            CHECK_EQUAL(memo({h, bytes}, field, memos).value_or(""),
                        expected.memos[field == kPicture]);
    }
    /// Compares the state, the record buffer and the records that were touched.
    void compare() const {
        const std::string_view file = contentsOf(path);
        const std::size_t length = h->Header.RecordLength, start = h->Header.HeaderLength;
        const std::size_t end = start + rows.size() * length;
        CHECK_EQUAL(file.size(), end + endByte);
        CHECK(!endByte || file[end] == '\x1A');
        CHECK(!stamped || load(file, 4, 4) == rows.size());
        CHECK_EQUAL(h->Header.RecordCount, rows.size());
        CHECK_EQUAL(reccount(h), viewCount());
        for (std::size_t i = first; i < std::min(last, rows.size()); ++i)
            compare(file.substr(start + i * length, length), rows[i]);
        compare({reinterpret_cast<const char*>(h->RecordBuffer), length}, buffer);
    }

    void append(Input& input) {
        if (rows.size() >= kRows) return;
        const bool clear = input.below(2) == 0;
        if (clear) buffer = blank();
        CHECK_EQUAL(AppendBlank(h, clear), 1);
        while (!order.empty() && order.size() <= viewCount())
            order.push_back(static_cast<u32>(order.size()));
        index.push_back(static_cast<u32>(rows.size()));
        touch(rows.size());
        rows.push_back(buffer);
        setStamped();
    }
    void changeBuffer(Input& input) {
        const u32 way = input.below(4);
        if (way == 0) CHECK_EQUAL(DupRecord(h), 1);
        if (way == 0) saved = buffer;
        if (way == 1) DupToRecord(h);
        if (way == 1 && h->SavedRecord != nullptr) buffer = saved;
        if (way == 2) ClearField(h, kNote);
        if (way == 2) takeBuffer();
        if (way == 3) buffer = blank();
    }
    void changeFlag(Input& input) {
        const u32 way = input.below(3), at = position(input);
        const std::optional<u32> found = recordAt(at);
        if (!found && !isMapped()) return;  // the end-of-file byte is a flag, too
        auto* const change = way == 0 ? DeleteRecord : way == 1 ? RecallRecord : InverseRecord;
        CHECK_EQUAL(change(h, at), way < 2 || found ? 1 : 0);
        if (!found) return;
        touch(*found);
        char& flag = rows[*found].bytes[0];
        const bool deleted = flag == '*';
        if (way == 0 || (way == 2 && !deleted)) flag = '*';
        if (way != 0 && deleted) flag = ' ';
    }
    void changeFromOutside(Input& input) {
        const u32 way = input.below(4), at = input.byte();
        const Table other(OpenBase(path.c_str()));
        if (way == 0 && !rows.empty()) {  // seen at once, as another handle of this process does it
            touch(at % rows.size());
            CHECK_EQUAL(InverseRecord(other.get(), static_cast<u32>(first)), 1);
            char& flag = rows[first].bytes[0];
            flag = flag == '*' ? ' ' : '*';
            return;
        }
        if (way == 1 && rows.size() < kRows) {
            CHECK_EQUAL(AppendBlank(other.get(), 1), 1);
            rows.push_back({recordOf(other.get()), {}});
            setStamped();
        } else if (way == 2 && !rows.empty() && !hasView()) {
            rows.resize(rows.size() / 2);
            const std::size_t size = h->Header.HeaderLength + rows.size() * h->Header.RecordLength;
            CHECK(truncate(path.c_str(), static_cast<off_t>(size)) == 0);
            endByte = stamped = false;
        }
        touchAll();
        const bool changed = h->Header.RecordCount != rows.size();
        CHECK_EQUAL(RefreshDatabase(h) != 0, changed);
    }
    void changeOption(Input& input) {
        const u32 way = input.below(8);
        if (way == 0) h->Reverse = h->Reverse == 0;
        if (way == 1) h->UseFilterIndex ^= 1;
        if (way == 3) {
            h->AfterRead = h->BeforeWrite =
                h->BeforeWriteByte = [](DbfBase* b) { return InternalSeekRecord(b, 0); };
        }
        if (way == 4) CHECK_EQUAL(WriteHeader(h), 1);
        if (way == 4) setStamped();
    }
    void cut(Input& input) {
        const u32 way = input.below(3), at = input.byte() % (static_cast<u32>(rows.size()) + 2);
        const bool possible = !hasView() && h->Reverse == 0 && (way != 0 || at < rows.size());
        CHECK_EQUAL((way == 0   ? Delete(h, at)
                     : way == 1 ? Zap(h)
                                : Truncate(h, at)) != 0,
                    possible);
        if (!possible) return;
        if (way == 0) rows.erase(rows.begin() + static_cast<int>(at));
        while (way == 2 && rows.size() < at) {  // the end-of-file byte, then zeros
            rows.push_back({std::string(h->Header.RecordLength, '\0'), {}});
            if (std::exchange(endByte, false)) rows.back().bytes[0] = '\x1A';
        }
        if (way != 0) rows.resize(way == 1 ? 0 : at);
        touchAll();
        setStamped();
    }
    void filter(Input& input) {
        constexpr char text[] = "COUNT>5|NAME<\"b\"";
        const char* const every = reinterpret_cast<const char*>(std::intptr_t{-1});
        const u32 way = input.below(4);
        h->SkipDeleted = way != 2;
        std::vector<u32> expected;
        order.clear();
        for (u32 i = 0; i < viewCount(); ++i) {
            const u32 found = recordAt(i).value();
            const std::string& bytes = rows[found].bytes;
            const bool taken = way < 3 ? way == 2 || bytes[0] != '*' : passes({h, bytes}, text);
            if (taken) expected.push_back(found);
        }
        filtered = way != 0;
        if (!filtered) return ClearAllFilter(h);
        CHECK(set_filter(h, way < 3 ? every : text, nullptr) == h);
        index.assign(h->FilterIndex, h->FilterIndex + h->FilterCount);
        CHECK(index == expected);
        takeBuffer();
    }
    void insert(Input& input) {
        if (rows.size() >= kRows) return;
        const bool clear = input.below(2) != 0, reversed = h->Reverse != 0;
        const u32 at = position(input), count = static_cast<u32>(rows.size());
        const bool possible = !hasView() && (reversed ? at < count : at <= count);
        CHECK_EQUAL(Insert(h, at, clear) != 0, possible);
        if (!possible) return;
        if (clear) buffer = blank();
        rows.insert(rows.begin() + static_cast<int>(reversed ? count - 1 - at : at), buffer);
        touchAll();
        setStamped();
    }
    void pack(Input& input) {
        const u32 mode = input.below(4);
        CHECK_EQUAL(Pack(h, mode) != 0, !hasView());
        if (hasView()) return;
        const auto deleted = [](const Record& row) { return row.bytes[0] == '*'; };
        if (mode < 2 && std::erase_if(rows, deleted) != 0) setStamped();
        touchAll();
        takeBuffer();
        if (mode % 2 != 0) return;
        // Records from before refer to the old memo file.
        if (rows.empty()) buffer = blank();
        DupRecord(h);
        saved = buffer;
    }
    /// A pack is killed, then both a new handle and one that was there before edit, then one of
    /// them packs. Every memo is the right one or refused.
    void killPack(Input& input) {
        if (hasView()) return;
        const Table before(OpenBase(path.c_str()));
        if (!rows.empty()) checkMemos(before.get(), 0);
        const u32 change = 1 + input.byte() % kChanges;
        rememberAt(change, input.below(8));
        const auto deleted = [](const Record& row) { return row.bytes[0] == '*'; };
        const bool drop = input.below(2) == 0 && std::none_of(rows.begin(), rows.end(), deleted);
        CHECK_EQUAL(Pack(h, drop ? 0 : 2), 1);
        goBack();
        open();
        const auto editor = [&] {
            DbfBase* const either = input.below(2) == 0 ? h : before.get();
            RefreshDatabase(either);
            return either;
        };
        for (u32 left = input.below(8); left > 0 && !rows.empty(); --left)
            editMemos(editor(), input);
        CHECK_EQUAL(Pack(editor(), 2), 1);
        open();
        touchAll();
    }
    bool isHalfPacked() const {
        return contentsOf(memoPath).substr(24).starts_with("Pack unfinished\0"s);
    }
    /// The library's reading of a record in its buffer.
    void checkMemos(DbfBase* editor, u32 record) {
        CHECK_EQUAL(ReadRecord(editor, record), 1);
        for (const int field : kMemos) {
            u32 length = 0;
            const std::unique_ptr<char, decltype(&std::free)> found(
                GetMemoBuf(editor, field, &length), std::free);
            if (isHalfPacked()) CHECK(found == nullptr);
            if (!isHalfPacked())
                CHECK_EQUAL(found != nullptr ? std::string(found.get(), length) : "",
                            rows[record].memos[field == kPicture]);
        }
    }
    bool isBlank(std::string_view reference) const {
        const std::string blanks = kind == 3 || kind == 4 ? "\0"s : "\0 0"s;
        return reference.find_first_not_of(blanks) == reference.npos;
    }
    /// Whether a reference of the buffer may go into a record, while its memos mean nothing.
    bool mayWrite(std::string_view bytes, u32 to, int field) const {
        const std::string_view reference = bytes.substr(column(field), width(field));
        const std::size_t at = h->Header.HeaderLength + std::size_t{to} * h->Header.RecordLength;
        return !isHalfPacked() || isBlank(reference) ||
               (to < rows.size() &&
                reference == contentsOf(path).substr(at + column(field), width(field)));
    }
    /// What a row becomes when fields of the buffer, which holds another, have been written into
    /// it.
    void take(u32 to, const Record& from, std::string_view bytes, int field) {
        const std::string_view reference = bytes.substr(column(field), width(field));
        const bool blank = isBlank(reference);
        if (blank || !isHalfPacked()) {
            rows[to].memos[field == kPicture] = blank ? "" : from.memos[field == kPicture];
        }
    }
    void editMemos(DbfBase* editor, Input& input) {
        const u32 way = input.below(8), count = static_cast<u32>(rows.size());
        const u32 from = input.byte() % count, to = input.byte() % count;
        checkMemos(editor, from);
        const Record row = rows[from];
        if (way == 0) ClearField(editor, kNote);
        if (way == 1) CHECK_EQUAL(SetMemo(editor, kNote, "new") != 0, !isHalfPacked());
        const std::string bytes = recordOf(editor);
        if (way < 3) {  // over itself, or another
            const u32 at = way < 2 ? from : to;
            const bool may = mayWrite(bytes, at, kNote) && mayWrite(bytes, at, kPicture);
            CHECK_EQUAL(WriteRecord(editor, at) != 0, may);
            if (!may) return;
            rows[at].bytes = bytes;
            for (const int field : kMemos) take(at, row, bytes, field);
            if (way == 1 && !isHalfPacked()) rows[at].memos[0] = "new";
        } else if (way == 3 && count < kRows) {
            const bool may = mayWrite(bytes, count, kNote) && mayWrite(bytes, count, kPicture);
            CHECK_EQUAL(AppendBlank(editor, 0) != 0, may);
            if (may) rows.push_back({bytes, {}});
            if (may) setStamped();
            for (const int field : kMemos)
                if (may) take(count, row, bytes, field);
        } else if (way == 4) {
            const bool may = mayWrite(bytes, to, kPicture);
            CHECK_EQUAL(WriteField(editor, to, kPicture) != 0, may);
            if (may) take(to, row, bytes, kPicture);
        } else if (way == 5 && isHalfPacked()) {
            CHECK_EQUAL(Delete(editor, from) + Insert(editor, to, 1) + Truncate(editor, to), 0);
        } else if (way == 6) {
            CHECK_EQUAL(Pack(editor, 2), 1);
        }
    }
    void readRecords(Input& input) {
        const bool one = input.below(2) == 0;
        const u32 from = position(input), to = one ? from : viewCount();
        for (u32 at = from; at <= to; ++at) {
            const std::optional<u32> found = recordAt(at);
            CHECK_EQUAL(ReadRecord(h, at) != 0, found.has_value());
            if (at < viewCount()) CHECK_EQUAL(recno(h, at), filtered ? index[at] : at);
            if (!found) takeBuffer();
            if (!found) continue;
            buffer = rows[*found];
            compare(recordOf(h), buffer);
            CHECK(ReadByte(h, at) == 1 && h->DeleteFlag == h->RecordBuffer[0]);
        }
    }
    void reopen(Input&) { open(); }
    void setField(Input& input) {
        const int field = static_cast<int>(input.below(16));
        const std::string text = cString(input.text(input.below(20)));
        const double value = input.real();
        if (field >= kFields || if_memo_type(h, field) != 0) return;
        const std::string bytes = stored({h, buffer.bytes}, field, text, value);
        buffer.bytes.replace(column(field), bytes.size(), bytes);
        SetValue(h, field, text.c_str(), value);
    }
    void setMemo(Input& input) {
        const u32 way = input.byte(), field = static_cast<u32>(kMemos[way % 2]);
        std::string memo = input.text(input.byte());
        if (contentsOf(memoPath).size() < kMemoFile) {
            const u32 doublings = way / 2 % 8;
            for (u32 i = 0; i < doublings; ++i) memo += memo;
            if (doublings == 7) memo.resize(kind == 0 ? kLongMemo : kOtherLong, 'x');
        }
        const bool asText = way / 16 % 2 != 0;
        if (asText) memo = cString(memo);
        const int done = asText ? SetMemo(h, field, memo.c_str())
                                : SetMemoBuf(h, field, memo.data(), static_cast<u32>(memo.size()));
        CHECK_EQUAL(done != 0, !memo.empty());
        if (done == 0) return;
        if (kind == 0) memo = cString(memo.substr(0, std::min(memo.find('\x1A'), kTextMemo)));
        buffer.bytes = recordOf(h);
        buffer.memos[way % 2] = memo;
    }
    void sort(Input&) {
        const bool descending = !order.empty();
        if (descending && h->SortDescending != 0) {
            ClearSort(h);
            h->SortDescending = 0;
            return order.clear();
        }
        h->SortDescending = descending;
        std::vector<std::pair<std::string, u32>> keys;
        for (u32 i = 0; i < viewCount(); ++i) {
            keys.emplace_back(rows[isFiltered() ? index[i] : i].bytes.substr(1, width(kName)), i);
            std::replace(keys.back().first.begin(), keys.back().first.end(), '\0', ' ');
        }
        std::sort(keys.begin(), keys.end());
        if (descending) std::reverse(keys.begin(), keys.end());
        CHECK_EQUAL(SortBase(h, "name", nullptr), 1);
        order.clear();
        for (const auto& [key, i] : keys) order.push_back(i);
        for (u32 i = 0; i < order.size(); ++i) CHECK_EQUAL(GetOrder(h, i), order[i]);
        takeBuffer();
    }
    void writeRecord(Input& input) {
        const u32 way = input.byte(), at = position(input);
        const std::optional<u32> found = recordAt(at);
        if (!found && !isMapped()) return;  // would write after the records
        const int field = static_cast<int>(way / 3 % kFields);
        if (way % 3 == 1) h->DeleteFlag = input.byte();
        const int done = way % 3 == 0   ? WriteRecord(h, at)
                         : way % 3 == 1 ? WriteByte(h, at)
                                        : WriteField(h, at, field);
        CHECK_EQUAL(done != 0, found.has_value());
        if (!found) return;
        touch(*found);
        Record& row = rows[*found];
        if (way % 3 == 0) row = buffer;
        if (way % 3 == 1) row.bytes[0] = static_cast<char>(h->DeleteFlag);
        if (way % 3 == 2)
            row.bytes.replace(column(field), width(field), buffer.bytes, column(field),
                              width(field));
        if (way % 3 == 2 && field == kNote) row.memos[0] = buffer.memos[0];
        if (way % 3 == 2 && field == kPicture) row.memos[1] = buffer.memos[1];
    }

    void step(Input& input);
};

constexpr struct {
    char letter;
    void (Session::*run)(Input&);
} kOperations[] = {{'a', &Session::append},      {'b', &Session::changeBuffer},
                   {'c', &Session::cut},         {'d', &Session::changeFlag},
                   {'f', &Session::setField},    {'i', &Session::insert},
                   {'k', &Session::killPack},    {'m', &Session::setMemo},
                   {'n', &Session::reopen},      {'o', &Session::changeOption},
                   {'p', &Session::pack},        {'r', &Session::readRecords},
                   {'s', &Session::sort},        {'v', &Session::filter},
                   {'w', &Session::writeRecord}, {'x', &Session::changeFromOutside}};

void Session::step(Input& input) {
    const char letter = static_cast<char>('`' + input.byte() % 32);
    first = last = 0;
    const bool isCostly = "knpsx"s.find(letter) != std::string::npos;
    if (isCostly && ++costly > kCostly) return;
    for (const auto& operation : kOperations)
        if (operation.letter == letter) (this->*operation.run)(input);
    compare();
}

void check(Input& input) {
    static const Folder folder;
    largestFile = 16 << 20;
    const u32 choice = input.byte();
    Session session{kKinds[choice / 4 % std::size(kKinds)], folder.file("t.dbf")};
    session.create(choice % 4 == 3 ? kWide : 10);
    while (!input.empty()) session.step(input);
    session.touchAll();
    session.compare();
    session.removeFiles();
}

}  // namespace

const Surface kSession{"session", check, 1024};

}  // namespace test
