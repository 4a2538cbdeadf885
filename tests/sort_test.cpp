// Sorting and searching. What SortBase does in memory is compared with the quicksort that reads and
// compares two records at a time.
#include <random>

#include "support.h"

namespace {

using namespace mira;
using namespace test;

using Order = std::vector<u32>;

u32 calls = 0, stopAt = 0;
std::mt19937 dice(1);

u32 below(u32 limit) { return static_cast<u32>(dice() % limit); }

StopCallback counting(u32 stop) {
    calls = 0;
    stopAt = stop;
    return [] { return ++calls == stopAt ? 1 : 0; };
}

/// The plain way, on the handle as it is while a sort runs.
Order plainOrder(DbfBase* h, const std::string& fields, StopCallback callback) {
    static char keys[2][65536];
    get_fields(h, fields.c_str(), &h->SortKeyCount, h->SortFields);
    h->SortKeyFields = reinterpret_cast<u32*>(h->SortFields);
    h->SortKeyA = keys[0];
    h->SortKeyB = keys[1];
    h->SortRecA = h->SortRecB = -2;
    h->SortCallback = callback;
    Order order;
    for (u32 i = 0; i < reccount(h); ++i) order.push_back(i);
    myqsort(order.data(), reccount(h), sizeof(u32), Compare, h);
    h->SortKeyA = h->SortKeyB = nullptr;
    return order;
}

/// The order that SortBase makes; nothing when it makes none.
Order baseOrder(DbfBase* h, const std::string& fields, StopCallback callback = nullptr) {
    EXPECT_EQ(SortBase(h, fields.c_str(), callback), 1) << fields;
    Order order(h->SortOrder, h->SortOrder + h->SortOrderCount);
    ClearSort(h);
    return order;
}

TEST(Sort, Keys) {
    const std::tuple<Column, std::string, std::string> cases[] = {
        {{"A", 'C', 6}, "  x \0y"s, "x    y"},
        {{"A", 'N', 6, 2}, " -5.00", "\n\n\5.\n\n"},
        {{"A", 'T', 8}, le(2460311, 4) + le(50829000, 4), "20240101140709"},
        {{"A", 'I', 4}, le(0xFFFFFFFB, 4), repeat("\n", 9) + "\5"}};
    const TempDir dir;
    for (const auto& [column, stored, key] : cases) {
        const Table h = openLayout(dir, {0x03, {column}, {' ' + stored}});
        std::string built(65536, 'x');
        u32 fields[] = {0, 1, 0};  // the second has no value
        h->SortKeyCount = 3;
        h->SortKeyFields = fields;
        h->DateFormat = h->TrimMode = 3;
        ReadRecord(h.get(), 0);
        GetCompStr(0, built.data(), h.get());
        EXPECT_EQ(built.c_str(), key + key) << column.type;
    }
}

const Layout kPeople{0x03,
                     {{"NAME", 'C', 4}, {"AGE", 'N', 6, 2}},
                     {" bob  -5.00", " Ann   3.00", " bob -10.00", " BOB   0.00", " Ann  -7.00"}};

TEST(Sort, FieldListsAndOrders) {
    const TempDir dir;
    const Table table = openLayout(dir, kPeople);
    DbfBase* const h = table.get();
    GetMemCalcField(h);
    AddCalcField(h, "TWICE", "AGE*2");
    EXPECT_EQ(baseOrder(h, "NAME, AGE"), (Order{4, 1, 3, 2, 0}));
    EXPECT_EQ(baseOrder(h, "\ttwice;UNKNOWN;NAME"), (Order{2, 4, 0, 3, 1}));
    FreeMemCalcField(h);
    h->Reverse = h->CaseInsensitive = h->SortDescending = 1;
    EXPECT_EQ(baseOrder(h, repeat("NAME ", 40)), (Order{3, 2, 0, 4, 1}));
    EXPECT_EQ(h->SortKeyCount, 21u);
    EXPECT_EQ(SortBase(h, "UNKNOWN,NAME", nullptr) + SortBase(h, ";", nullptr), 0);
    std::filesystem::resize_file(h->FileName, 97 + 4 * 11);  // the last sorts as a blank one
    h->Reverse = h->SortDescending = 0;
    EXPECT_EQ(baseOrder(h, "NAME"), (Order{4, 1, 0, 2, 3}));

    // Keys are cut to what their buffer holds.
    Layout wide{0x03, {{"A", 'C', 0, 0xFE}}, {}};
    for (const char* text : {" c", " a", " a", " b"}) wide.records.push_back(padded(text, 65025));
    EXPECT_EQ(baseOrder(openLayout(dir, wide).get(), "A A"), (Order{1, 2, 3, 0}));
}

/// A field of random bytes out of one of several alphabets, or like the end of a key, which lets
/// keys begin with other keys.
std::string randomField(unsigned length) {
    static const std::string alphabets[] = {" ", "\0"s, "012", " -.0123456789", "aAbB\xE0 ", ""};
    if (length == 20 && below(2) == 0)
        return padded(padded("", 9) + std::to_string(below(10)) + std::string(below(3), 'x'), 20);
    const std::string& set = alphabets[below(std::size(alphabets))];
    std::string field(length, 0);
    for (char& c : field) c = set.empty() ? static_cast<char>(dice()) : set[dice() % set.size()];
    return field;
}

TEST(Sort, InMemoryAsPlain) {
    const std::string types = "CNFLDMTTGYBI0@+OVQW";
    const u8 lengths[] = {20, 6, 5, 1, 8, 10, 8, 14, 4, 8, 8, 4, 1, 8, 4, 8, 5, 3, 10};
    Layout layout;
    for (u32 i = 0; i < types.size(); ++i)
        layout.columns.push_back({"F" + std::to_string(i), types[i], lengths[i], types[i] == 'N'});
    const TempDir dir;
    for (int round = 0; round < 200; ++round) {
        layout.records.assign(below(round % 20 == 0 ? 1500 : 90), " ");
        for (std::string& record : layout.records)
            for (const Column& c : layout.columns) record += randomField(c.length);
        const Table table = openLayout(dir, layout);
        DbfBase* const h = table.get();
        GetMemCalcField(h);
        AddCalcField(h, "K", "RTRIM(F0)");
        if (below(2) == 0) set_filter(h, "F2>\"1\"", nullptr);
        for (i32* option : {&h->RawNumeric, &h->TrimMode, &h->DateFormat, &h->Reverse})
            *option = static_cast<i32>(below(5));
        for (u8* option : {&h->CaseInsensitive, &h->SortDescending}) *option = below(2) == 0;
        std::string fields = below(3) == 0 ? "K" : "F" + std::to_string(below(19));
        if (below(3) == 0) fields += ";F" + std::to_string(below(19));
        const Order plain = plainOrder(h, fields, counting(0));
        const u32 plainCalls = calls, stop = (calls + 1) / 2;
        EXPECT_EQ(baseOrder(h, fields), plain) << fields;
        EXPECT_EQ(baseOrder(h, fields, counting(0)), plain) << fields;
        EXPECT_EQ(calls, plainCalls);
        EXPECT_EQ(baseOrder(h, fields, counting(stop)), stop == 0 ? plain : Order{});
        EXPECT_EQ(calls, stop);
        FreeMemCalcField(h);
    }
}

TEST(Seek, BisectsTheOrder) {
    const TempDir dir;
    const Table h = openLayout(dir, kPeople);
    h->CaseInsensitive = 1;
    SortBase(h.get(), "NAME", nullptr);  // Ann Ann bob bob BOB
    const std::tuple<const char*, char, i32> cases[] = {
        {"BOB", 1, 2}, {"a", 1, 1}, {"", 1, 2}, {"zoe", 1, -1}, {"zoe", 0, 5}, {"Abe", 0, -1}};
    for (const auto& [text, exact, position] : cases)
        EXPECT_EQ(SeekValue(h.get(), 0, text, exact), position) << text;
    h->CaseInsensitive = 0;
    EXPECT_EQ(SeekValue(h.get(), 0, "a", 1) + SeekValue(h.get(), 9, "a", 1), -2);
    set_filter(h.get(), "AGE=3", nullptr);
    EXPECT_EQ(SeekValue(h.get(), 0, "An", 1), 0);
}

}  // namespace
