// Tables and memo files as a hostile writer makes them: opened, read in every way, edited.
//
//   0  4  options      4  2  length of the memo file      6  memo file, then the table file
#include <bit>
#include <cmath>
#include <functional>
#include <utility>

#include "property.h"
#include "support/reference.h"
#include "support/tables.h"

namespace test {
namespace {

constexpr u32 kRecords = 12;  // read from each end
constexpr int kFields = 150;  // with all their values, so that no input takes long

bool isIn(const DbfBase* h, int field) { return field >= 0 && field < h->FieldCount; }

/// Questions about a field of any number.
void askAbout(DbfBase* h, int field) {
    CHECK_EQUAL(GetFieldName(h, field) != nullptr, isIn(h, field));
    CHECK_EQUAL(fieldno(h, field), isIn(h, field) ? field : -1);
    CHECK_EQUAL(GetFieldType(h, field), isIn(h, field) ? h->Fields[field].Type : '#');
    const char* const header = GetHeader(h, field);
    CHECK_EQUAL(GetLenHeader(h, field),
                header != nullptr ? static_cast<int>(std::strlen(header)) : 0);
    CHECK(GetLenMax(h, field) >= GetLenView(h, field) && GetTypeName(h, field) != nullptr);
    CHECK_EQUAL(static_cast<unsigned>(GetAllLen(h, field)), GetLenField(h, field));
    CHECK(isIn(h, field) || GetFieldClass(h, field) == FieldClass::None);
    CHECK(GetFieldFlags(h, field) <= (isIn(h, field) ? 0xFFu : 0u));
}

using Block = std::unique_ptr<char, decltype(&std::free)>;

std::optional<std::string> readMemo(DbfBase* h, int field) {
    u32 length = 0;
    const Block memo(GetMemoBuf(h, field, &length), std::free);
    CHECK(memo == nullptr || memo.get()[length] == 0);
    return memo != nullptr ? std::optional(std::string(memo.get(), length)) : std::nullopt;
}

/// What is said of the place of a memo fits what is read.
void checkSpan(DbfBase* h, int field, std::string_view memoFile, const std::string& memo) {
    u32 block = 0, length = 0;
    u64 first = 0, end = 0;
    if (GetMemoReference(h, field, &block, &length) == 0 || GetBlockSize(h) == 0) return;
    // Digits behind a zero byte, at which a text ends.
    const bool read = GetNumeric(h, field) == block || static_cast<u32>(GetInt(h, field)) == block;
    if (GetMemoKind(h) != 4 && !read) return;
    const int result = GetMemoSpan(h, block, length, &first, &end);
    CHECK(first <= end && (result != 0 || end == 0));
    if (result == 0) return CHECK(memo.empty());
    CHECK_EQUAL(result == 2, end > memoFile.size());
    first = std::min<u64>(first, memoFile.size());
    const std::string_view bytes = memoFile.substr(first, end - first);
    CHECK_EQUAL(GetMemoKind(h) != 0 ? std::string(bytes) : cString(bytes.substr(0, 65535)), memo);
}

void checkMoment(DbfBase* h, int field) {
    i32 day = 0, milliseconds = 0;
    if (GetMoment(h, field, &day, &milliseconds) == 0) return;
    const Moment m = moment(current(h), field);
    CHECK(isValid(m) && GetFieldClass(h, field) == FieldClass::Moment);
    CHECK_EQUAL(dayNumber(m), i64{day});
    CHECK_EQUAL((m.hour * 60 + m.minute) * 60 + m.second, milliseconds / 1000);
}

/// Whether a memo file has the log of an interrupted Pack, while which no memo can be read, and
/// most edits are refused.
bool isHalfPacked(std::string_view memoFile) {
    return memoFile.size() >= 64 && memoFile.substr(24).starts_with("Pack unfinished\0"s);
}

/// Whether a table file may have the log of a Pack that moves records, which no record behind it
/// counts with: the mark in front may be cut by the end of the file, the slots need none.
bool isHalfMoved(std::string_view table) {
    return table.find("\x1AP") != std::string_view::npos ||
           table.find("Pack unfinished\0"s) != std::string_view::npos;
}

/// Every value of a field of the current record.
void readField(DbfBase* h, int field, std::string_view memoFile) {
    const bool inTable = isIn(h, field);
    const char* const text = GetStr(h, field);
    CHECK_EQUAL(text != nullptr, inTable || field < 0);
    if (text != nullptr) CHECK_EQUAL(text, inTable ? shown(current(h), field) : "");
    const double value = GetValue(h, field), wanted = inTable ? number(current(h), field) : 0.0;
    CHECK(value == wanted || (std::isnan(value) && std::isnan(wanted)));
    CHECK_EQUAL(GetSign(h, field), (value > 0) - (value < 0));
    CHECK(std::strlen(GetString(h, field)) < 65535);
    for (auto* const get : {GetNumeric, GetFloat, GetDouble, GetCurrency}) get(h, field);
    CHECK(!std::isnan(GetInvertedDouble(h, field)));
    GetInt(h, field);
    GetBool(h, field);
    std::tm time = GetDT(h, field);
    CHECK_EQUAL(GetDateTime(h, field), mymktime(&time));
    GetTm(h, field);

    const bool isMemo = if_memo_type(h, field) != 0 && !isHalfPacked(memoFile);
    const std::optional<std::string> expected =
        isMemo ? memo(current(h), field, memoFile) : std::nullopt;
    CHECK(readMemo(h, field) == expected);
    if (isMemo) checkSpan(h, field, memoFile, expected.value_or(""));
    checkMoment(h, field);
    const Block whole(GetMemo(h, field), std::free);
    if (whole != nullptr) CHECK_EQUAL(whole.get(), cString(*expected));
    CHECK(h->MemoFile == nullptr && h->MemoBuffer == nullptr);
}

/// Reads records in both directions; each is what the file holds at its place.
void readRecords(DbfBase* h, std::string_view table, std::string_view memoFile) {
    const u32 length = h->Header.RecordLength, count = reccount(h);
    const std::size_t start = h->Header.HeaderLength;
    const std::size_t held = table.size() < start ? 0 : (table.size() - start) / length;
    CHECK(isHalfMoved(table) ? count <= held : count == held);
    int left = kFields;
    for (u32 i = 0; i < std::min(count, 2 * kRecords); ++i) {
        const u32 position = i < kRecords ? i : count - 1 - (i - kRecords);
        const u32 physical = h->Reverse != 0 ? count - 1 - position : position;
        CHECK_EQUAL(ReadRecord(h, position), 1);
        const std::string_view stored =
            table.substr(start + std::size_t{physical} * length, length);
        CHECK(recordOf(h) == stored);
        for (int field = -1; field <= h->FieldCount && left > 0; ++field, --left) {
            readField(h, field, memoFile);
            CHECK_EQUAL(ReadField(h, position, field) != 0, isIn(h, field));
        }
        CHECK(recordOf(h) == stored);
        CHECK(ReadByte(h, position) == 1 && h->DeleteFlag == static_cast<u8>(stored[0]));
    }
    CHECK(GetRecord(h, count) == 0 || length == 1 || isHalfMoved(table));
    for (auto* const read : {ReadRecord, ReadByte}) read(h, 0x7FFFFFFF);
}

/// No byte of the record outside a field is another one than before.
void checkOutside(DbfBase* h, int field, const char* setter, std::string_view before) {
    const std::string_view now(reinterpret_cast<const char*>(h->RecordBuffer), before.size());
    const std::size_t at = isIn(h, field) ? h->Fields[field].Offset : now.size();
    const std::size_t length = isIn(h, field) ? GetLenField(h, field) : 0;
    const std::size_t end = std::min(at + length, now.size());
    if (now.substr(0, at) == before.substr(0, at) && now.substr(end) == before.substr(end)) return;
    fail(__FILE__, __LINE__, setter + " changes bytes outside field "s + std::to_string(field));
}

/// Stores into every field.
void setFields(DbfBase* h, const std::string& text, double number) {
    const std::pair<const char*, std::function<void(int)>> setters[] = {
        {"SetValue",
         [&](int field) {
             const bool isMemo = if_memo_type(h, field) != 0;  // takes the number for a length
             const double value = isMemo ? std::min(number, double(text.size())) : number;
             SetValue(h, field, text.c_str(), value);
         }},
        {"SetBool",
         [&](int field) {
             if (isIn(h, field) && h->Fields[field].Type == 'L') SetBool(h, field, 1);
         }},
        {"SetDate", [&](int field) { SetDate(h, field, 2024, 2, 29); }},
        {"SetTimeStamp", [&](int field) { SetTimeStamp(h, field, 9999, 12, 31, 23, 59, 59); }},
        {"SetInt", [&](int field) { SetInt(h, field, 5); }},
        {"SetDouble", [&](int field) { SetDouble(h, field, number); }},
        {"SetInvertedDouble", [&](int field) { SetInvertedDouble(h, field, number); }},
        {"SetCurrency", [&](int field) { SetCurrency(h, field, number); }},
        {"SetFloat", [&](int field) { SetFloat(h, field, number); }},
        {"SetMemo", [&](int field) { SetMemo(h, static_cast<u32>(field), text.c_str()); }},
    };
    for (int field = -1; field <= std::min<int>(h->FieldCount, kFields); ++field) {
        const std::string before = recordOf(h);
        for (const auto& [name, set] : setters) {
            set(field);
            checkOutside(h, field, name, before);
        }
    }
}

/// The memos of the first records that stay when the table is packed. Left out are fields of a
/// length at which they hold no reference: packing leaves them as they are, so they may lead
/// anywhere.
std::vector<std::string> memosToKeep(DbfBase* h) {
    std::vector<std::string> memos;
    for (u32 i = 0; i < std::min(h->Header.RecordCount, kRecords); ++i) {
        InternalSeekRecord(h, i);
        CHECK(ReadFile(h->TableFile, h->RecordBuffer, h->Header.RecordLength) != 0);
        for (int field = 0; field < h->FieldCount && h->RecordBuffer[0] != '*'; ++field) {
            const unsigned length = GetLenField(h, field);
            if (length == 10 || (length == 4 && h->Header.Version != 0xE5))
                memos.push_back(readMemo(h, field).value_or(""));
        }
    }
    return memos;
}

/// Packing shows no memo in another field's place. What a log says that packing finds, its writer
/// has to answer for.
void packMemos(DbfBase* h) {
    const bool halfPacked = isHalfPacked(contentsOf(h->MemoFileName));
    const std::vector<std::string> before = memosToKeep(h);
    const int whole = Pack(h, 0);
    const std::vector<std::string> after = memosToKeep(h);
    for (std::size_t i = 0; i < std::min(before.size(), after.size()); ++i)
        CHECK(halfPacked || after[i] == before[i] || (whole == 0 && after[i].empty()));
}

/// Edits of a table that was not made by the library.
void edit(DbfBase* h, const std::string& path, double number) {
    setFields(h, "20240229 with a text", number);
    WriteRecord(h, 0);
    WriteField(h, 0, 0);
    RefreshDatabase(h);  // in an empty table that was behind the last record
    const u32 count = reccount(h);
    const auto refused = [h] { return IsPackUnfinished(h) != 0; };
    const bool hasMemos = h->FirstMemoField != -1 && GetMemoKind(h) != 0xFFFFFFFF;
    CHECK_EQUAL(refused(),
                hasMemos && GetBlockSize(h) == 0 && isHalfPacked(contentsOf(h->MemoFileName)));
    CHECK(AppendBlank(h, 0) == 1 || refused());
    CHECK_EQUAL(Insert(h, 0, 1) == 1, !refused());
    InverseRecord(h, 1);
    packMemos(h);
    const bool reversed = h->Reverse != 0, removes = !reversed && reccount(h) != 0;
    CHECK_EQUAL(Delete(h, 0) == 1, removes && !refused());
    CHECK_EQUAL(Truncate(h, count) == 1, !reversed && !refused());
    CHECK(MakeBakFile(h, 1) == 1 && readAll(h->BackupName) == readAll(path));
}

/// Edits of a table with a log, which may be none of the library's: whatever it says is done or
/// refused.
void editHalfMoved(DbfBase* h) {
    AppendBlank(h, 0);
    Insert(h, 0, 1);
    Delete(h, 0);
    for (const u32 mode : {1U, 2U, 0U}) Pack(h, mode);
    WriteRecord(h, 0);
    Truncate(h, reccount(h) / 2);
    RefreshDatabase(h);
}

void setOptions(DbfBase* h, u32 options) {
    h->DateFormat = static_cast<i32>(options % 8) - 1;
    h->TrimMode = static_cast<i32>(options >> 3 & 3);
    h->RawNumeric = static_cast<i32>(options >> 5 & 1);
    h->MemoAsNumber = static_cast<i32>(options >> 6 & 1);
    h->Reverse = static_cast<i32>(options >> 7 & 1);
    h->UseAliases = static_cast<i32>(options >> 8 & 1);
    h->CaseInsensitive = static_cast<u8>(options >> 9 & 1);
    SetDateSeparator(h, static_cast<char>(options >> 24));
}

void check(Input& input) {
    static const Folder folder;
    largestFile = 512 << 10;
    const u32 options = input.number<u32>();
    const std::string memoFile = input.text(input.number<u16>()), table = input.text(65536);
    const std::string path = folder.file("t.dbf");
    writeAll(path, table);
    const bool writable = (options >> 10 & 1) != 0;
    const Table h((writable ? OpenBase : OpenBaseRO)(path.c_str()));
    if (!h) return;
    const std::string memoPath = h->MemoFileName;
    writeAll(memoPath, memoFile);

    setOptions(h.get(), options);
    for (const int field : {-2147483647, -1, int{h->FieldCount}, 2047, 2048, 2147483647})
        askAbout(h.get(), field);
    for (int field = 0; field < std::min<int>(h->FieldCount, kFields); ++field)
        askAbout(h.get(), field);
    GetBlockSize(h.get());
    readRecords(h.get(), table, memoFile);
    const int field = h->FieldCount == 0 ? 0 : static_cast<int>(options >> 16) % h->FieldCount;
    const char exact = static_cast<char>(options >> 11 & 1);
    if (reccount(h.get()) != 0)
        SeekValue(h.get(), field, cString(table.substr(4, 2)).c_str(), exact);
    CHECK_EQUAL(RefreshDatabase(h.get()), 0);
    if (writable && isHalfMoved(table)) {
        editHalfMoved(h.get());
    } else if (writable) {
        edit(h.get(), path, static_cast<double>(options) / 256);
    }
    for (const std::string& name :
         {memoPath, std::string(memoPath).replace(memoPath.rfind('.') + 1, 1, "~")})
        std::remove(name.c_str());
}

}  // namespace

const Surface kTable{"table", check, 16384};

}  // namespace test
