// Tables and memo files as a hostile writer makes them: opened, read in every way, edited.
//
//   0  4  options      4  2  length of the memo file      6  memo file, then the table file
#include "support.h"

using namespace fuzz;

namespace {

constexpr std::size_t kLargest = 16384;
constexpr std::uintmax_t kLargestMemoFile = 1 << 20;
constexpr u32 kRecords = 24;
constexpr int kRenderings = 400;  // fields with all their values, so that no input takes long

const Directory directory;

/// Everything that can be asked about a field without a record.
void askAbout(DbfBase* h, int field) {
    const bool inTable = field >= 0 && field < h->FieldCount;
    const char* name = GetFieldName(h, field);
    const char* header = GetHeader(h, field);
    FUZZ_CHECK((name != nullptr) == inTable && (header != nullptr) == inTable);
    FUZZ_CHECK(GetLenHeader(h, field) == (inTable ? static_cast<int>(std::strlen(header)) : 0));
    FUZZ_CHECK(static_cast<unsigned>(GetAllLen(h, field)) == GetLenField(h, field));
    FUZZ_CHECK(GetLenMax(h, field) >= GetLenView(h, field));
    FUZZ_CHECK(GetHighLen(h, field) <= 255 && GetLowLen(h, field) <= 255);
    FUZZ_CHECK(GetTypeName(h, field) != nullptr);
    FUZZ_CHECK(inTable || (GetFieldType(h, field) == '#' && if_memo_type(h, field) == 0));
    FUZZ_CHECK(fieldno(h, field) == (inTable ? field : -1));
    FUZZ_CHECK(FieldBlankChar(h, field) == 0 || FieldBlankChar(h, field) == ' ');
}

/// Every value of a field of the current record.
void readField(DbfBase* h, int field, std::string_view memoFile) {
    const bool inTable = field >= 0 && field < h->FieldCount;
    const char* text = GetStr(h, field);
    FUZZ_CHECK((text != nullptr) == (inTable || field < 0));
    FUZZ_CHECK(text == nullptr || std::strlen(text) < 65535);
    const double value = GetValue(h, field);
    FUZZ_CHECK(GetSign(h, field) == (value > 0) - (value < 0));
    FUZZ_CHECK(std::strlen(GetString(h, field)) < 65535);
    GetNumeric(h, field);
    GetFloat(h, field);
    GetInt(h, field);
    GetDouble(h, field);
    GetCurrency(h, field);
    GetBool(h, field);
    const double ordered = GetInvertedDouble(h, field);
    FUZZ_CHECK(ordered == ordered);
    std::tm time = GetDT(h, field);
    FUZZ_CHECK(GetDateTime(h, field) == mymktime(&time));
    GetTm(h, field);

    const std::optional<std::string> memo = readMemo(h, field);
    const bool isMemo = if_memo_type(h, field) != 0;
    FUZZ_CHECK(memo == (isMemo ? memoOf(h, field, record(h), memoFile) : std::nullopt));
    char* const asText = GetMemo(h, field);
    FUZZ_CHECK(asText == nullptr || std::strlen(asText) <= memo->size());
    std::free(asText);
    FUZZ_CHECK(h->MemoFile == nullptr && h->MemoBuffer == nullptr);
}

/// Reads records in both directions; each is what the file holds at its place.
void readRecords(DbfBase* h, std::string_view table, std::string_view memoFile) {
    const u32 length = h->Header.RecordLength;
    const u32 count = reccount(h);
    FUZZ_CHECK(count == (table.size() < h->Header.HeaderLength
                             ? 0
                             : (table.size() - h->Header.HeaderLength) / length));
    int renderings = kRenderings;
    for (u32 i = 0; i < std::min(count, 2 * kRecords); ++i) {
        const u32 position = i < kRecords ? i : count - 1 - (i - kRecords);
        const u32 physical = h->Reverse != 0 ? count - 1 - position : position;
        FUZZ_CHECK(ReadRecord(h, position) == 1);
        const std::string_view stored =
            table.substr(h->Header.HeaderLength + std::size_t{physical} * length, length);
        FUZZ_CHECK(record(h) == stored);
        for (int field = -1; field <= h->FieldCount && renderings > 0; ++field, --renderings) {
            readField(h, field, memoFile);
            FUZZ_CHECK(ReadField(h, position, field) == (field >= 0 && field < h->FieldCount));
        }
        FUZZ_CHECK(record(h) == stored);
        FUZZ_CHECK(ReadByte(h, position) == 1 && h->DeleteFlag == static_cast<u8>(stored[0]));
    }
    FUZZ_CHECK(GetRecord(h, count) == 0 || length == 1);
    ReadRecord(h, 0xFFFFFFFF);
    ReadByte(h, 0x7FFFFFFF);
}

/// Stores into every field; no byte outside it changes.
void setFields(DbfBase* h, const std::string& text, double number) {
    for (int field = -1; field <= std::min<int>(h->FieldCount, kRenderings); ++field) {
        std::string before(record(h));
        const bool inTable = field >= 0 && field < h->FieldCount;
        const bool isMemo = if_memo_type(h, field) != 0;  // takes the number for a length
        SetValue(h, field, text.c_str(), isMemo ? std::min(number, double(text.size())) : number);
        if (inTable && h->Fields[field].Type == 'L') SetBool(h, field, 1);
        SetDate(h, field, 2024, 2, 29);
        SetTimeStamp(h, field, 9999, 12, 31, 23, 59, 59);
        SetInt(h, field, 5);
        SetDouble(h, field, number);
        SetInvertedDouble(h, field, number);
        SetCurrency(h, field, number);
        SetFloat(h, field, number);
        SetMemo(h, static_cast<u32>(field), text.c_str());
        if (inTable) {
            const std::size_t at = h->Fields[field].Offset;
            const std::size_t length = GetLenField(h, field);
            before.replace(at, length, record(h).substr(at, length));
        }
        FUZZ_CHECK(record(h) == before);
    }
}

/// True where records do not count as part of the header, nor the end-of-file byte as a record, and
/// growing or shrinking does not change the level.
bool isWellFormed(const DbfBase* h, std::string_view table) {
    const std::size_t end = h->HeaderSize + std::size_t{h->FieldCount} * h->DescriptorSize;
    return h->Header.RecordLength > 1 && end < h->Header.HeaderLength && end < table.size() &&
           table[end] == 0x0D && (h->Level7 != 0 ? h->Header.HeaderLength >= 128 : table[64] != 0);
}

/// The memos of the first records that stay when the table is packed. A field too short for its
/// reference shows what its neighbours lead to, so it is left out.
std::vector<std::string> memosToKeep(DbfBase* h) {
    std::vector<std::string> memos;
    for (u32 i = 0; i < std::min(h->Header.RecordCount, kRecords); ++i) {
        InternalSeekRecord(h, i);
        FUZZ_CHECK(ReadFile(h->TableFile, h->RecordBuffer, h->Header.RecordLength) != 0);
        for (int field = 0; field < h->FieldCount && h->RecordBuffer[0] != '*'; ++field) {
            const bool fits = h->Header.Version != 0xE5 || GetLenField(h, field) >= 10;
            if (fits) memos.push_back(readMemo(h, field).value_or(""));
        }
    }
    return memos;
}

/// Packing shows no memo in another field's place.
void packMemos(DbfBase* h) {
    const std::vector<std::string> before = memosToKeep(h);
    const int whole = Pack(h, 0);
    const std::vector<std::string> after = memosToKeep(h);
    for (std::size_t i = 0; i < std::min(before.size(), after.size()); ++i) {
        FUZZ_CHECK(after[i] == before[i] || (whole == 0 && after[i].empty()));
    }
}

/// Edits of a table that was not made by the library.
void edit(DbfBase* h, const std::string& path, std::string_view table, double number) {
    setFields(h, "20240229 with a text", number);
    // A next free block far behind the end makes a sparse file, and its memos may be as long.
    std::error_code none;
    const std::uintmax_t memoSize = std::filesystem::file_size(h->MemoFileName, none);
    if (!none && memoSize > kLargestMemoFile) return;
    const u32 count = reccount(h);
    WriteRecord(h, 0);
    WriteField(h, 0, 0);
    FUZZ_CHECK(AppendBlank(h, 0) == 1);
    FUZZ_CHECK(Insert(h, 0, 1) == 1);
    InverseRecord(h, 1);
    packMemos(h);
    const bool reversed = h->Reverse != 0;
    const bool removes = !reversed && reccount(h) != 0;
    FUZZ_CHECK(Delete(h, 0) == (removes ? 1 : 0));
    FUZZ_CHECK(Truncate(h, count) == (reversed ? 0 : 1));
    SetAliasName(h, nullptr);
    std::strcpy(h->AliasNames[0], "alias");
    WriteAlias(h);
    h->AliasNames[0][0] = 0;
    ReadAlias(h);
    FUZZ_CHECK(h->FieldCount == 0 || std::strcmp(h->AliasNames[0], "alias") == 0);
    FUZZ_CHECK(MakeBakFile(h, 1) == 1 && readFile(h->BackupName) == readFile(path));
    const Table again(OpenBase(path.c_str()));
    if (!isWellFormed(h, table)) return;
    FUZZ_CHECK(again != nullptr && reccount(again.get()) == reccount(h));
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > kLargest) return 0;
    Input input(data, size);
    const u32 options = input.number<u32>();
    const std::string memoFile = input.text(input.number<u16>());
    const std::string table = input.rest();
    const std::string path = directory.file("t.dbf");
    writeFile(path, table);
    const bool writable = (options >> 10 & 1) != 0;
    const Table h(writable ? OpenBase(path.c_str()) : OpenBaseRO(path.c_str()));
    if (!h) return 0;
    const std::string memoPath = h->MemoFileName;
    writeFile(memoPath, memoFile);

    setOptions(h.get(), options);
    for (const int field : {-2147483647, -1, int{h->FieldCount}, 2047, 2048, 2147483647})
        askAbout(h.get(), field);
    for (int field = 0; field < h->FieldCount; ++field) askAbout(h.get(), field);
    GetBlockSize(h.get());
    readRecords(h.get(), table, memoFile);
    const int field = h->FieldCount == 0 ? 0 : static_cast<int>(options >> 16) % h->FieldCount;
    if (reccount(h.get()) != 0)
        SeekValue(h.get(), field, table.substr(4, 2).c_str(), static_cast<char>(options >> 11 & 1));
    FUZZ_CHECK(RefreshDatabase(h.get()) == 0);
    if (writable) edit(h.get(), path, table, static_cast<double>(options) / 256);

    std::string old = memoPath;
    old[old.rfind('.') + 1] = '~';
    std::remove(old.c_str());
    std::remove(memoPath.c_str());
    return 0;
}
