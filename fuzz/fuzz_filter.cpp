// Filters over a small table of every field type: what set_filter finds against what ValidRecord,
// which takes every text apart anew, finds record by record. The same text is then a calculated
// field.
//
//   0  1  switches      1  1  TrimMode and DateFormat      2  1  NoBracketCheck      then the text
#include "support.h"

using namespace fuzz;

namespace {

constexpr std::size_t kLargest = 3000;
constexpr std::size_t kPiece = 1023;

struct Column {
    const char* name;
    char type;
    u8 length, decimals;
};
constexpr Column kColumns[] = {
    {"NAME", 'C', 10, 0}, {"PRICE", 'N', 10, 2}, {"QTY", 'N', 5, 0},  {"FINE", 'F', 20, 9},
    {"FRAC", 'N', 3, 2},  {"WIDE", 'N', 120, 3}, {"CNT", 'I', 4, 0},  {"CASH", 'Y', 8, 0},
    {"DBL", 'B', 8, 2},   {"ORD", 'O', 8, 0},    {"BORN", 'D', 8, 0}, {"SEEN", 'T', 8, 0},
    {"FLAG", 'L', 1, 0},  {"MEMO", 'M', 10, 0},  {"BIN", 'Q', 4, 0},  {"NOTE", 'C', 44, 1}};

/// A row of values for every column; what is missing is blank.
const std::vector<std::vector<const char*>> kRows = {
    {"Ann", "     12.50", "    1", "      12345.678901234", ".50", "1.5", "\1", "\x10\x27", "\1",
     "\xBF\xF0", "20240305", "\xF7\x8A\x25", "T", "        12", "ab", "a longer note"},
    {"Andrew (x", "     -5.00", "    2", "  1234567890.1234567", "1.5", "-7"},
    {"<b", "3.14", "", "1e3", "-.5", "", "\xFF\xFF\xFF\xFF", "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"},
    {"\xE0\xA0 TRIM(", "500.00 x", "0x1A", "inf", "-"},
    {""},
    {"ann", "99999999.9", "99999", "-0", "5", "4280387012.5279348"}};

std::string tableBytes() {
    std::string head = "\x03";
    unsigned length = 1;
    std::string fields;
    std::string rows;
    for (const Column& c : kColumns) {
        length += c.type == 'C' ? c.length + 256u * c.decimals : c.length;
        std::string d(32, 0);
        d.replace(0, std::strlen(c.name), c.name);
        d[11] = c.type;
        d[16] = static_cast<char>(c.length);
        d[17] = static_cast<char>(c.decimals);
        fields += d;
    }
    for (const auto& row : kRows) {
        rows += rows.size() == length ? '*' : ' ';
        for (std::size_t i = 0; i < std::size(kColumns); ++i) {
            const Column& c = kColumns[i];
            const bool binary = std::strchr("IYBOT", c.type) != nullptr;
            std::string value = i < row.size() ? row[i] : "";
            value.resize(c.type == 'C' ? c.length + 256u * c.decimals : c.length,
                         binary ? '\0' : ' ');
            rows += value;
        }
    }
    const std::size_t header = 32 + fields.size() + 1;
    head.resize(32, 0);
    head[4] = static_cast<char>(kRows.size());
    for (int i = 0; i < 2; ++i) {
        head[8 + static_cast<std::size_t>(i)] = static_cast<char>(header >> 8 * i);
        head[10 + static_cast<std::size_t>(i)] = static_cast<char>(length >> 8 * i);
    }
    return head + fields + '\r' + rows + '\x1A';
}

DbfBase* openTable() {
    static const Directory directory;
    writeFile(directory.file("t.dbf"), tableBytes());
    static const Table table(OpenBaseRO(directory.file("t.dbf").c_str()));
    FUZZ_CHECK(table != nullptr && table->Header.RecordCount == kRows.size());
    return table.get();
}

int invertCase(char* text, DbfBase*, int) {
    for (; *text != 0; ++text) *text = static_cast<char>(*text ^ 0x20);
    return 0;
}

int setOptions(DbfBase* h, Input& input) {
    const u8 switches = input.byte();
    h->CaseInsensitive = switches & 1;
    h->RawNumeric = switches >> 1 & 1;
    h->OemConvert = switches >> 2 & 1;
    h->SkipDeleted = switches >> 3 & 1;
    h->Reverse = switches >> 4 & 1;
    h->MemoAsNumber = switches >> 5 & 1;
    h->UpperCaseCallback = (switches & 0x40) != 0 ? invertCase : nullptr;
    const u8 modes = input.byte();
    h->TrimMode = modes % 4;
    h->DateFormat = modes / 4 % 5;
    h->NoBracketCheck = input.byte() % 3;
    return 0;
}

std::vector<u32> plainly(DbfBase* h, const char* text) {
    const auto work = std::make_unique<FilterWork>();
    h->FilterState = work.get();
    std::vector<u32> found;
    const u32 count = reccount(h);
    for (u32 i = 0; i < count; ++i) {
        ReadRecord(h, i);
        if (ValidRecord(h, text) != 0) found.push_back(h->Reverse != 0 ? count - 1 - i : i);
    }
    h->FilterState = nullptr;
    return found;
}

bool hasLongPiece(std::string_view text) {
    while (text.size() > kPiece) {
        const std::size_t cut = text.find_first_of("&|");
        if (cut > kPiece) return true;
        text.remove_prefix(cut + 1);
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > kLargest) return 0;
    static DbfBase* const h = openTable();
    Input input(data, size);
    setOptions(h, input);
    const std::string text = input.rest().c_str();

    ClearAllFilter(h);
    const std::vector<u32> expected = plainly(h, text.c_str());
    if (set_filter(h, text.c_str(), nullptr) == h) {
        FUZZ_CHECK(std::vector<u32>(h->FilterIndex, h->FilterIndex + h->FilterCount) == expected);
        FUZZ_CHECK(h->FilterText == text && h->FilterState == nullptr);
    } else {
        FUZZ_CHECK(expected.empty() || hasLongPiece(text));
        FUZZ_CHECK(h->FilterIndex == nullptr && h->FilterText == nullptr);
    }
    ClearAllFilter(h);

    ReadRecord(h, static_cast<u32>(size % kRows.size()));
    FUZZ_CHECK(GetMemCalcField(h) == 1);
    FUZZ_CHECK(AddCalcField(h, "X", text.c_str()) == 1);
    const int slot = h->FieldCount;
    const char* const value = GetStr(h, slot);
    const bool number = GetCalcValueI(h, slot) != 0.0;
    FUZZ_CHECK(!number || value != nullptr);
    FUZZ_CHECK(if_digit_type(h, slot) != 0 || GetValue(h, slot) == 0.0);
    FreeMemCalcField(h);
    return 0;
}
