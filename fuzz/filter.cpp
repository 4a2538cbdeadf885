// Filters over small tables of every field type, by set_filter and as the rule has it; then, as the
// length of the text decides, one record by ValidRecord or the text as a calculated field.
//
//   0  1  switches and table      1  1  TrimMode and DateFormat      2  1  NoBracketCheck      then
//   the text
#include <cmath>
#include <ostream>

#include "property.h"
#include "support/reference.h"
#include "support/tables.h"

namespace test {
namespace {

const std::vector<Column> kColumns = {
    {"NAME", 'C', 10},   {"PRICE", 'N', 10, 2}, {"QTY", 'N', 5},  {"FINE", 'F', 20, 9},
    {"FRAC", 'N', 3, 2}, {"WIDE", 'N', 120, 3}, {"CNT", 'I', 4},  {"CASH", 'Y', 8},
    {"DBL", 'B', 8, 2},  {"ORD", 'O', 8},       {"BORN", 'D', 8}, {"SEEN", 'T', 8},
    {"FLAG", 'L', 1},    {"MEMO", 'M', 10},     {"BIN", 'Q', 4},  {"NOTE", 'C', 44, 1}};

constexpr u32 kRows = 3;

/// A row of values for every column; what is missing is blank. Each half is a table.
const std::vector<std::vector<std::string>> kValues = {
    {"Ann", "     12.50", "    1", "      12345.678901234", ".50", "1.5", "\1", "\x10\x27", "\1",
     "\xBF\xF0", "20240305", "\xF7\x8A\x25", "T", "        12", "ab", "a longer note"},
    {"Andrew (x", "     -5.00", "    2", "  1234567890.1234567", "1.5", "-7"},
    {"<b", "3.14", "", "1e3", "-.5", "", "\xFF\xFF\xFF\xFF", "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"},
    {"\xE0\xA0 TRIM(", "500.00 x", "0x1A", "inf", "-"},
    {""},
    {"ann", "99999999.9", "99999", "-0", "5", "4280387012.5279348"}};

struct Open {
    Folder folder;
    Layout layout{0x03, kColumns};
    Table table;

    explicit Open(std::size_t first) {
        for (std::size_t i = first; i < first + kRows; ++i) {
            std::string& record = layout.records.emplace_back(i % kRows == 1 ? "*" : " ");
            for (std::size_t k = 0; k < kColumns.size(); ++k) {
                const bool binary = std::strchr("IYBOT", kColumns[k].type) != nullptr;
                record += padded(k < kValues[i].size() ? kValues[i][k] : "", kColumns[k].width(),
                                 binary ? '\0' : ' ');
            }
        }
        largestFile = 16 << 20;
        table = openLayout(folder, layout);
        CHECK(table != nullptr && table->Header.RecordCount == kRows);
        CHECK(GetMemCalcField(table.get()) == 1);
    }
    ~Open() { FreeMemCalcField(table.get()); }
    Open(const Open&) = delete;
    Open& operator=(const Open&) = delete;
};

int invertCase(char* text, DbfBase*, int) {
    for (; *text != 0; ++text) *text = static_cast<char>(*text ^ 0x20);
    return 0;
}

void setOptions(DbfBase* h, u8 switches, u8 modes) {
    h->CaseInsensitive = switches & 1;
    h->RawNumeric = switches >> 1 & 1;
    h->OemConvert = switches >> 2 & 1;
    h->SkipDeleted = switches >> 3 & 1;
    h->Reverse = switches >> 4 & 1;
    h->MemoAsNumber = switches >> 5 & 1;
    h->UpperCaseCallback = (switches & 0x40) != 0 ? invertCase : nullptr;
    h->TrimMode = modes % 4;
    h->DateFormat = modes / 4 % 5;
}

using Records = std::vector<u32>;

void checkFilter(const Open& open, const std::string& text, bool refused) {
    DbfBase* const h = open.table.get();
    Records expected;
    for (u32 i = 0; i < kRows; ++i) {
        const u32 record = h->Reverse != 0 ? kRows - 1 - i : i;
        if (passes({h, open.layout.records[record]}, text)) expected.push_back(record);
    }
    CHECK_EQUAL(set_filter(h, text.c_str(), nullptr) != h, refused);
    if (refused) return CHECK(h->FilterIndex == nullptr && h->FilterText == nullptr);
    CHECK(Records(h->FilterIndex, h->FilterIndex + h->FilterCount) == expected);
    CHECK(h->FilterText == text && h->FilterState == nullptr);
    ClearAllFilter(h);
}

/// What the text is told to be made of; one without a fault is not refused.
void checkPlaces(const Row& row, const std::string& text, bool refused) {
    FilterFault fault{};
    u32 first = 0, end = 0, sign = 0, right = 0, number = 0;
    int field = 0;
    const bool runs = CheckFilter(row.h, text.c_str(), &fault, &first, &end) != 0;
    CHECK(runs == (fault == FilterFault::None) && first <= end && end <= text.size());
    if (refused) return CHECK(!runs);
    for (const ConditionPlaces& c : conditionPlaces(row, text)) {
        CHECK(GetFilterCondition(row.h, text.c_str(), number++, &field, &sign, &right, &end) == 1);
        CHECK_EQUAL(field, c.field);
        CHECK(sign == c.signFirst && right == c.rightFirst && end == c.end);
    }
    CHECK(GetFilterCondition(row.h, text.c_str(), number, &field, &sign, &right, &end) == 0);
}

/// The current record.
void checkValid(const Row& row, const std::string& text, bool refused) {
    FilterWork work;
    row.h->FilterState = &work;
    CHECK_EQUAL(ValidRecord(row.h, text.c_str()), !refused && passes(row, text));
    row.h->FilterState = nullptr;
}

void checkCalculated(const Row& row, const std::string& text) {
    DbfBase* const h = row.h;
    const std::optional<std::string> wanted = calculated(row, text);
    CHECK(AddCalcField(h, "X", text.c_str()) == 1);
    const char* const got = GetStr(h, h->FieldCount);
    CHECK_EQUAL(got == nullptr, !wanted);
    if (wanted) CHECK_EQUAL(got, *wanted);
    const double value = GetCalcValue(h, "x"), number = calculatedValue(row, text);
    CHECK(value == number || (std::isnan(value) && std::isnan(number)));
    CHECK(if_digit_type(h, h->FieldCount) != 0 || GetValue(h, h->FieldCount) == 0.0);
    DelCalcField(h, "x");
}

void check(Input& input) {
    static const Open tables[2] = {Open(0), Open(kRows)};
    const u8 switches = input.byte(), modes = input.byte();
    const Open& open = tables[switches >> 7];
    DbfBase* const h = open.table.get();
    setOptions(h, switches, modes);
    h->NoBracketCheck = input.byte() % 3;
    const std::string text = input.rest();
    const bool refused = isRefused(h, text);
    checkFilter(open, text, refused);
    const std::size_t record = text.size() % kRows;
    h->Reverse = 0;
    CHECK(ReadRecord(h, static_cast<u32>(record)) == 1);
    const Row row{h, open.layout.records[record]};
    checkPlaces(row, text, refused);
    if (text.size() % 2 == 0) checkValid(row, text, refused);
    if (text.size() % 2 != 0) checkCalculated(row, text);
}

}  // namespace

const Surface kFilter{"filter", check, 600};

}  // namespace test
