// Sorting and searching, against a stable sort of the values and a bisection of their texts.
#include <strings.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <random>

#include "support.h"

namespace test {
namespace {

using Order = std::vector<u32>;

constexpr int kFields = 8;
const std::vector<Column> kColumns = {{"F0", 'C', 3},    {"F1", 'N', 7, 2}, {"F2", 'I', 4},
                                      {"F3", 'B', 8, 1}, {"F4", 'O', 8},    {"F5", 'D', 8},
                                      {"F6", 'T', 8},    {"F7", 'C', 200}};

u32 calls = 0, stopAt = 0;
StopCallback counting(u32 stop) {
    calls = 0;
    stopAt = stop;
    return [] { return ++calls == stopAt ? 1 : 0; };
}

struct View : testing::Test {
    u32 below(u32 limit) { return static_cast<u32>(dice() % limit); }

    /// Texts of one length differ in a place or two.
    std::string longText(u32 most) {
        std::string out(below(3) == 0 ? most : below(most + 1), "m "[below(4) == 0]);
        if (!out.empty()) out[below(most) % out.size()] = "aA \x80\xA5\xE0\xFF"[below(7)];
        return out;
    }
    /// Few different values, so that many are equal; numbers are multiples of a half.
    void fill(u32 count) {
        Layout layout{0x03, kColumns};
        layout.records.assign(count, std::string(layout.recordLength(), 0));
        h = (table = openLayout(folder, layout)).get();
        h->DateFormat = 4;
        for (std::string& record : layout.records) {
            record[0] = " *"[below(5) == 0];
            for (int f = 0; f < kFields; ++f) {
                const std::string text =
                    f == 0   ? std::string{"abA\xB0 "[below(5)], "bcB"[below(3)]}
                    : f == 7 ? longText(200)
                             : printed("202401%02d10000%u", int(below(3)), below(3));
                const double value = (below(9) - 4.0) / 2 * (below(4) == 0 ? 100 : 1);
                const std::string bytes = stored({h, record}, f, text, value);
                record.replace(h->Fields[f].Offset, bytes.size(), bytes);
            }
        }
        h = (table = openLayout(folder, layout)).get();
        rows = layout.records;
        h->SkipDeleted = 1;
        if (below(2) == 0) set_filter(h, reinterpret_cast<char*>(std::intptr_t{-1}), nullptr);
        for (u8* option : {&h->CaseInsensitive, &h->SortDescending}) *option = below(2) == 0;
        h->Reverse = below(2) == 0;
        h->DateFormat = static_cast<i32>(below(5));
        h->TrimMode = static_cast<i32>(below(4));
    }
    Row row(u32 position) const {
        return {h, rows[h->FilterIndex != nullptr ? h->FilterIndex[position] : position]};
    }
    bool isLess(const std::vector<int>& fields, u32 a, u32 b) const {
        const i32 format = std::exchange(h->DateFormat, 4);
        bool less = false;
        for (const int f : fields) {
            const double x = number(row(a), f), y = number(row(b), f);
            std::string s = shown(row(a), f), t = shown(row(b), f);
            for (std::string* text : {&s, &t}) {
                text->resize(std::max<std::size_t>(text->size(), GetLenField(h, f)), ' ');
                if (h->CaseInsensitive != 0) UpperCase(reinterpret_cast<u8*>(text->data()));
            }
            less = isNumeric(h->Fields[f]) ? x < y : s < t;
            if (x != y || (!isNumeric(h->Fields[f]) && s != t)) break;
        }
        h->DateFormat = format;
        return less;
    }
    Order natural() const {
        Order order(reccount(h));
        std::iota(order.begin(), order.end(), 0u);
        return order;
    }
    Order found() const {
        return h->SortOrder == nullptr ? Order{} : Order(h->SortOrder, h->SortOrder + reccount(h));
    }

    Folder folder;
    std::vector<std::string> rows;
    Table table;
    DbfBase* h = nullptr;
    std::mt19937 dice{1};
};

/// The plain way, on the handle as it is while a sort runs.
Order plainly(DbfBase* h, const std::string& fields, Order order) {
    static char keys[2][65536];
    EXPECT_EQ(get_fields(h, fields.c_str(), &h->SortKeyCount, h->SortFields), 0);
    h->SortKeyFields = reinterpret_cast<u32*>(h->SortFields);
    h->SortKeyA = keys[0];
    h->SortKeyB = keys[1];
    h->SortRecA = h->SortRecB = -2;
    h->SortCallback = counting(0);
    myqsort(order.data(), static_cast<u32>(order.size()), sizeof(u32), Compare, h);
    h->SortKeyA = h->SortKeyB = nullptr;
    return order;
}

TEST_F(View, SortsAsAStableSortOfTheValues) {
    for (u32 round = 0; round < 300; ++round) {
        fill(round % 101);
        std::vector<int> fields;
        std::string names;
        for (u32 left = 1 + below(3); left > 0; --left) {
            fields.push_back(static_cast<int>(below(kFields)));
            names += "f" + std::to_string(fields.back()) + ";, \t"[below(4)];
        }
        SCOPED_TRACE(names + std::to_string(round));
        Order expected = natural();
        std::stable_sort(expected.begin(), expected.end(),
                         [&](u32 a, u32 b) { return isLess(fields, a, b); });
        if (h->SortDescending != 0) std::reverse(expected.begin(), expected.end());
        ASSERT_EQ(plainly(h, names, natural()), expected);
        const u32 plainCalls = calls, stop = (calls + 1) / 2;
        for (const StopCallback callback : {StopCallback{}, counting(0)}) {
            ASSERT_EQ(SortBase(h, names.c_str(), callback), 1);
            ASSERT_EQ(found(), expected);
            ASSERT_EQ(GetOrder(h, reccount(h)), reccount(h) == 0 ? 0 : 0xFFFFFFFF);
        }
        ASSERT_EQ(calls, plainCalls);
        ASSERT_EQ(SortBase(h, names.c_str(), counting(stop)), 1);
        ASSERT_EQ(found(), stop == 0 ? expected : Order{});
        ASSERT_EQ(calls, stop);
    }
}

TEST_F(View, SeeksByBisection) {
    for (u32 count = 0; count <= 100; ++count) {
        fill(count);
        h->SortDescending = 0;
        const int field = below(2) == 0 ? 0 : 5;
        ASSERT_EQ(SortBase(h, field == 0 ? "F0" : "F5", nullptr), 1);
        const i64 all = reccount(h);
        for (int i = 0; i < 40 && all != 0; ++i) {
            const std::string text =
                shown(row(below(static_cast<u32>(all))), field).substr(0, below(11)) +
                "~"[below(3) / 2];
            const auto differs = [&](i64 position) {
                const i64 p = h->Reverse != 0 ? all - 1 - position : position;
                const std::string value = shown(row(h->SortOrder[p]), field);
                return (h->CaseInsensitive != 0 ? strncasecmp : std::strncmp)(
                    text.c_str(), value.c_str(), std::strlen(text.c_str()));
            };
            i64 low = 0, high = all, before = -1, middle = all / 2;
            if (all == 1) middle = differs(0) == 0 ? 0 : -1;
            while (all != 1 && middle != before && middle >= 0 && middle < high) {
                const int difference = differs(before = middle);
                if (difference == 0) break;
                (difference < 0 ? high : low) = middle;
                middle += difference < 0 ? -std::max<i64>(1, (middle - low) / 2)
                                         : std::max<i64>(1, (high - middle) / 2);
            }
            const bool met = middle >= 0 && middle < all && differs(middle) == 0;
            ASSERT_EQ(SeekValue(h, field, text.c_str(), 0), middle) << text << ", " << all;
            ASSERT_EQ(SeekValue(h, field, text.c_str(), 1), met ? middle : -1)
                << text << ", " << all;
        }
    }
    EXPECT_EQ(SeekValue(h, 99, "a", 1), -1);
}

TEST_F(View, FieldLists) {
    fill(30);
    EXPECT_EQ(SortBase(h, "F0, UNKNOWN, F2", nullptr), 1) << "ends before a name that is unknown";
    EXPECT_EQ(h->SortFieldCount, 1u);
    const Order before = found();
    for (const char* none : {"UNKNOWN,F0", ";"}) EXPECT_EQ(SortBase(h, none, nullptr), 0);
    EXPECT_EQ(SeekValue(h, 0, nullptr, 0), -1);
    EXPECT_EQ(found(), before);
    EXPECT_EQ(SortBase(h, repeat("F0 ", 40).c_str(), nullptr), 1);
    EXPECT_EQ(h->SortKeyCount, 21u);
    EXPECT_EQ(GetMemCalcField(h), 1);
    EXPECT_EQ(AddCalcField(h, "SAME", "F2*1"), 1);
    EXPECT_EQ(SortBase(h, "same", nullptr), 1);
    const Order byValue = found();
    EXPECT_EQ(SortBase(h, "F2", nullptr), 1);
    EXPECT_EQ(found(), byValue);
    FreeMemCalcField(h);
    ClearSort(h);
    EXPECT_EQ(h->SortOrder, nullptr);
    EXPECT_EQ(h->SortFieldCount, 0u);
    real_sort(h, &h->SortOrder, nullptr);
    EXPECT_NE(h->SortOrder, nullptr);
}

TEST(Sort, KeysAsTheyAreBuilt) {
    const Folder folder;
    const std::tuple<Column, std::string, std::string> keys[] = {
        {{"A", 'C', 6}, "  x \0y"s, "x    y"},
        {{"A", 'N', 6, 2}, " -5.00", "\n\n\5.\n\n"},
        {{"A", 'T', 8}, le(2460311, 4) + le(50829000, 4), "20240101140709"},
        {{"A", 'I', 4}, le(0xFFFFFFFB, 4), repeat("\n", 9) + "\5"}};
    for (const auto& [column, bytes, key] : keys) {
        const Table h = openLayout(folder, {0x03, {column}, {' ' + bytes}});
        std::string built(65536, 'x');
        u32 fields[] = {0, 1, static_cast<u32>(-1), 0};  // two without a value
        h->SortKeyCount = 4;
        h->SortKeyFields = fields;
        h->DateFormat = h->TrimMode = 3;
        ReadRecord(h.get(), 0);
        GetCompStr(0, built.data(), h.get());
        EXPECT_EQ(built.c_str(), key + key) << column.type;
    }
    // Keys are cut to what their buffer holds.
    Layout wide{0x03, {{"A", 'C', 0, 0xFE}}};
    for (const char* text : {" c", " a", " a", " b"}) wide.records.push_back(padded(text, 65025));
    const Table h = openLayout(folder, wide);
    EXPECT_EQ(SortBase(h.get(), "A A", nullptr), 1);
    EXPECT_EQ((Order{h->SortOrder, h->SortOrder + 4}), (Order{1, 2, 3, 0}));
}

TEST(Sort, NumbersByValue) {
    const TempDir dir;
    const Column columns[] = {{"A", 'I', 4}, {"A", '+', 4},     {"A", 'Y', 8},    {"A", 'B', 8, 3},
                              {"A", 'O', 8}, {"A", 'B', 8, 19}, {"A", 'F', 12, 1}};
    for (const Column& column : columns) {
        const Table h = openLayout(dir, {0x30, {column}, {}});
        for (const double v : {0.0, 12.0, 2e9, 1.0, 3e8, 999999999.0, 1e9, 12.5, 1.25, 7e15, 9e99,
                               2.5e12, 1e12, 8e70, 300.0, 2147483648.0, 8e99, HUGE_VAL}) {
            for (const double sign : {1.0, -1.0}) {
                SetValue(h.get(), 0, "", sign * v);
                AppendBlank(h.get(), 0);
            }
        }
        GetMemCalcField(h.get());
        AddCalcField(h.get(), "CALC", "A*1");
        for (const char* by : {"A", "CALC"}) {
            EXPECT_EQ(SortBase(h.get(), by, nullptr), 1);
            double previous = -HUGE_VAL;
            for (u32 position = 0; position < reccount(h.get()); ++position) {
                ReadRecord(h.get(), position);
                if (*by == 'C' && GetCalcString(h.get(), "CALC") == nullptr) continue;  // too long
                const double value =
                    *by == 'A' ? GetValue(h.get(), 0) : GetCalcValue(h.get(), "CALC");
                EXPECT_LE(previous, value) << column.type << by;
                previous = value;
            }
        }
        FreeMemCalcField(h.get());
    }
}

TEST(Sort, CallbacksMayChangeTheView) {
    const Layout people{
        0x03,
        {{"NAME", 'C', 4}, {"AGE", 'N', 6, 2}},
        {" bob  -5.00", " Ann   3.00", " bob -10.00", " BOB   0.00", " Ann  -7.00"}};
    static DbfBase* h;
    static int round;
    const TempDir dir;
    for (round = 0; round < 4; ++round) {
        const Table table = openLayout(dir, people);
        h = table.get();
        const StopCallback change = [] {
            if (h->SortCallback == nullptr || round == 3) return 0;
            h->SortCallback = nullptr;
            if (round == 0) SortBase(h, "AGE", nullptr);
            if (round == 1) set_filter(h, "AGE>0", nullptr);
            if (round == 2) AppendBlank(h, 1);
            return 0;
        };
        EXPECT_EQ(SortBase(h, "NAME", change), 1);
        EXPECT_EQ(reccount(h), std::vector<u32>({5, 1, 6, 5})[static_cast<u32>(round)]);
        for (u32 position = 0; position < reccount(h); ++position)
            EXPECT_TRUE(ReadRecord(h, position)) << round;
    }
}

TEST(Sort, ElementsOfAnyWidth) {
    DbfBase h{};
    const auto bySmaller = [](const void* a, const void* b, DbfBase*) {
        return std::memcmp(a, b, 3);
    };
    std::string elements = repeat("cccaaabbb", 5), few = "cccaaabbb", pair = "abcXYZ";
    myqsort(elements.data(), 15, 3, bySmaller, &h);
    EXPECT_EQ(elements, repeat("aaa", 5) + repeat("bbb", 5) + repeat("ccc", 5));
    shortsort(few.data(), &few[6], 3, bySmaller, &h);
    EXPECT_EQ(few, "aaabbbccc");
    myswap(pair.data(), &pair[3], 3);
    EXPECT_EQ(pair, "XYZabc");
}

}  // namespace
}  // namespace test
