// Values stored into the fields of one record and read back.
//
//   0  1  flavour      1  6  lengths and decimals of C, N, F and B      then one store after the
//   other
#include <bit>
#include <cmath>

#include "property.h"
#include "support/reference.h"
#include "support/tables.h"

namespace test {
namespace {

bool same(double a, double b) {
    return std::bit_cast<u64>(a) == std::bit_cast<u64>(b) || (std::isnan(a) && std::isnan(b));
}

/// Of every type. Other makers' descriptors are told apart by what the lengths add up to, so that
/// their decimals stay small.
std::vector<Column> columnsOf(Input& input, Flavour flavour) {
    const u32 most = flavour == kForeignLevel7 ? 32 : 255;
    const u32 n = input.byte(), nDecimals = input.byte() % most;
    const u32 f = input.byte(), fDecimals = input.byte() % most;
    const u32 bDecimals = input.byte() % most, c = input.byte();
    return {{"F", 'C', c},
            {"F", 'N', n, nDecimals},
            {"F", 'F', f, fDecimals},
            {"F", 'B', 8, bDecimals},
            {"F", 'O', 8},
            {"F", 'Y', 8},
            {"F", 'I', 4},
            {"F", '+', 4},
            {"F", 'L', 1},
            {"F", 'D', 8},
            {"F", 'T', 8},
            {"F", 'T', 14},
            {"F", '@', 8},
            {"F", '@', 14},
            {"F", 'Q', 9},
            {"F", 'V', 5},
            {"F", '0', 3},
            {"F", 'P', 2},
            {"F", 'M', 10},
            {"F", 'W', 4},
            {"F", 'B', 10}};
}

class Values {
public:
    explicit Values(Input& input) {
        static const Folder folder;
        largestFile = 16 << 20;
        const auto flavour = static_cast<Flavour>(input.below(3));
        Layout layout{0x03, columnsOf(input, flavour), {}, flavour};
        expected_ = std::string(layout.recordLength(), '.');
        layout.records = {expected_};
        h_ = openLayout(folder, layout);
        CHECK(h_ != nullptr && h_->Level7 == (flavour != kPlain));
        CHECK(ReadRecord(h_.get(), 0) == 1);
    }

    void step(Input& input) {
        const int field = static_cast<int>(input.below(32));
        const u32 options = input.byte();
        if (field >= h_->FieldCount) return;
        h_->DateFormat = static_cast<i32>(options & 7) - 1;
        h_->TrimMode = static_cast<i32>(options >> 3 & 3);
        h_->RawNumeric = static_cast<i32>(options >> 5 & 1);
        h_->MemoAsNumber = h_->RawNumeric;
        const Row row{h_.get(), expected_};
        std::string bytes = row.field(field);
        const bool dated = std::strchr("DT@", row[field].Type) != nullptr;
        if (options >> 6 == 0) {
            const std::string raw = input.text(bytes.size());
            bytes.replace(0, raw.size(), raw);
            bytes.copy(reinterpret_cast<char*>(h_->RecordBuffer + row[field].Offset), bytes.size());
        } else if (options >> 6 == 1 && dated) {
            bytes = storeMoment(row, field, input);
        } else if (if_memo_type(h_.get(), field) == 0) {
            const std::string text = cString(input.text(input.below(24)));
            const double number = input.real();
            bytes = stored(row, field, text, number);
            SetValue(h_.get(), field, text.c_str(), number);
        }
        expected_.replace(row[field].Offset, bytes.size(), bytes);
        CHECK_EQUAL(recordOf(h_.get()), expected_);
        compare(field);
        CHECK_EQUAL(recordOf(h_.get()), expected_);
    }

private:
    std::string storeMoment(const Row& row, int field, Input& input) {
        Moment m{input.number<std::int16_t>(), input.number<std::int8_t>() % 16 - 1};
        for (int* part : {&m.day, &m.hour, &m.minute, &m.second})
            *part = input.number<std::int8_t>();
        std::string bytes = stored(row, field, m);
        auto* const set = row[field].Type == '@' ? SetTimeStamp : SetDateTime;
        set(h_.get(), field, m.year, m.month + 1, m.day, m.hour, m.minute, m.second);
        return bytes;
    }

    void compare(int field) {
        const Row row{h_.get(), expected_};
        CHECK_EQUAL(GetStr(h_.get(), field), shown(row, field));
        const double got = GetValue(h_.get(), field), wanted = number(row, field);
        if (row[field].Type == 'B' && row[field].Length != 8) return;
        CHECK(same(got, wanted));
        CHECK_EQUAL(GetSign(h_.get(), field), (wanted > 0) - (wanted < 0));
        if (std::strchr("DT@", row[field].Type) == nullptr) return;
        const Moment m = moment(row, field);
        CHECK_EQUAL(GetDateTime(h_.get(), field), isValid(m) ? 0 : -1);
        const std::tm t = (row[field].Type == '@' ? GetTm : GetDT)(h_.get(), field);
        CHECK(!isValid(m) || (t.tm_year == m.year && t.tm_mon == m.month && t.tm_mday == m.day));
        CHECK(t.tm_hour == m.hour && t.tm_min == m.minute && t.tm_sec == m.second);
    }

    Table h_;
    std::string expected_;
};

void check(Input& input) {
    Values values(input);
    while (!input.empty()) values.step(input);
}

}  // namespace

const Surface kValues{"values", check, 1024};

}  // namespace test
