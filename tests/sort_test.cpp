// Sorting and searching. What SortBase does in memory is compared with the quicksort that reads and
// compares two records at a time.
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <numeric>
#include <random>

#include "support.h"

using namespace mira;
using namespace test;

namespace {

using Order = std::vector<u32>;

int calls = 0;
int stopAt = 0;
int reads = 0;
std::mt19937 dice(1);

unsigned below(unsigned limit) { return static_cast<unsigned>(dice() % limit); }

StopCallback counting(int stop) {
    calls = 0;
    stopAt = stop;
    return [] { return ++calls == stopAt ? 1 : 0; };
}

/// The plain way, on the handle as it is while a sort runs; nothing when stopped.
Order plainOrder(DbfBase* h, const char* fields, StopCallback callback) {
    std::vector<char> keyA(65536), keyB(65536);
    EXPECT_EQ(get_fields(h, fields, &h->SortKeyCount, h->SortFields), 0);
    Order slots(h->SortFields, h->SortFields + 21);
    h->SortKeyFields = slots.data();
    h->SortKeyA = keyA.data();
    h->SortKeyB = keyB.data();
    h->SortRecA = h->SortRecB = -2;
    h->SortCallback = callback;
    Order order(reccount(h));
    std::iota(order.begin(), order.end(), 0);
    myqsort(order.data(), reccount(h), 4, Compare, h);
    h->SortCallback = nullptr;
    h->SortKeyA = h->SortKeyB = nullptr;
    return h->SortRecA == -1 ? Order{} : order;
}

/// The order that SortBase makes; nothing when it makes none.
Order baseOrder(DbfBase* h, const char* fields, StopCallback callback = nullptr) {
    EXPECT_EQ(SortBase(h, fields, callback), 1) << fields;
    Order order;
    if (h->SortOrder != nullptr) order.assign(h->SortOrder, h->SortOrder + reccount(h));
    ClearSort(h);
    return order;
}

void setFilter(DbfBase* h, const Order& records) {
    h->FilterIndex = static_cast<u32*>(std::malloc((records.size() + 1) * sizeof(u32)));
    std::copy(records.begin(), records.end(), h->FilterIndex);
    h->FilterCount = static_cast<u32>(records.size());
}

/// A table of one field.
Table openTexts(const TempDir& dir, const Column& column, const std::vector<std::string>& texts) {
    Layout layout;
    layout.columns = {column};
    for (const std::string& text : texts) {
        layout.records.push_back(' ' + padded(text, layout.recordLength() - 1));
    }
    return openLayout(dir, layout);
}

TEST(Sort, QuicksortOfAnyWidth) {
    const auto compare = [](const void* a, const void* b, DbfBase*) {
        return ++calls, std::memcmp(a, b, 3);
    };
    std::vector<std::array<char, 3>> elements(3000);
    for (auto& e : elements) e = {'a', static_cast<char>(below(100)), static_cast<char>(below(3))};
    auto expected = elements;
    std::sort(expected.begin(), expected.end());
    myqsort(elements.data(), 3000, 3, compare, nullptr);
    EXPECT_EQ(elements, expected);

    const auto h = std::make_unique<DbfBase>();
    std::fill(elements.begin(), elements.end(), elements[0]);
    for (const auto& [count, comparisons] : {std::pair{9u, 16}, {8u, 28}, {1u, 0}, {8u, 0}}) {
        calls = 0;
        myqsort(elements.data(), count, 3, compare, h.get());
        EXPECT_EQ(calls, comparisons);
        h->SortRecA = -static_cast<i32>(count == 1);  // stopped from there on
    }
}

TEST(Sort, Keys) {
    const struct {
        char type;
        unsigned length, decimals;
        std::string stored, key;
    } cases[] = {
        {'C', 6, 0, "  x \0y"s, "x    y"},
        {'C', 44, 1, "a", padded("a", 300)},
        {'N', 6, 2, " -5.00", "\n\n\5.\n\n"},
        {'F', 4, 0, "-1:2", "\n\t"},  // raw
        {'D', 8, 0, "20240230", padded("", 10)},
        {'T', 8, 0, le(2460311, 4) + le(50829000, 4), "20240101140709"},
        {'L', 1, 0, "\0"s, " "},
        {'I', 4, 0, le(0xFFFFFFFB, 4), "\n\n\n\n    -5"},
        {'M', 10, 0, "         7", "Full memo "},
    };
    const TempDir dir;
    for (const auto& c : cases) {
        const Table h = openTexts(dir, {"A", c.type, c.length, c.decimals}, {c.stored});
        std::vector<char> key(65536, 'x');
        u32 fields[] = {0, 1, 0};  // the second has no value
        h->SortKeyCount = 3;
        h->SortKeyFields = fields;
        h->DateFormat = 2;
        h->TrimMode = 3;
        h->RawNumeric = c.type == 'F';
        ReadRecord(h.get(), 0);
        std::memset(h->TextBuffer, '?', 65535);
        GetCompStr(0, key.data(), h.get());
        EXPECT_EQ(key.data(), c.key + c.key) << c.type << c.stored;
        EXPECT_EQ(h->DateFormat, 2);
    }
}

const Layout people = {
    .columns = {{"NAME", 'C', 4}, {"AGE", 'N', 6, 2}},
    .records = {" bob  -5.00", " Ann   3.00", " bob -10.00", " BOB   0.00", " Ann  -7.00"}};

TEST(Sort, FieldListsAndOrders) {
    const TempDir dir;
    const Table table = openLayout(dir, people);
    DbfBase* const h = table.get();
    GetMemCalcField(h);
    AddCalcField(h, "TWICE", "AGE*2");
    EXPECT_EQ(baseOrder(h, "NAME, AGE"), (Order{4, 1, 3, 2, 0}));
    EXPECT_EQ(baseOrder(h, "\ttwice;\n"), (Order{2, 4, 0, 3, 1}));
    EXPECT_EQ(baseOrder(h, "name;UNKNOWN;AGE"), (Order{1, 4, 3, 0, 2}));
    FreeMemCalcField(h);
    h->CaseInsensitive = 1;
    h->Reverse = 1;
    EXPECT_EQ(baseOrder(h, "NAME"), (Order{1, 4, 0, 2, 3}));
    h->SortDescending = 1;
    h->OemConvert = 'm';
    h->UpperCaseCallback = [](char* text, DbfBase*, int mode) {
        return *text = static_cast<char>(mode), 1;
    };
    EXPECT_EQ(baseOrder(h, "NAME"), (Order{2, 0, 4, 1, 3}));

    EXPECT_EQ(SortBase(h, "AGE", nullptr), 1);
    const u32* kept = h->SortOrder;
    EXPECT_EQ(SortBase(h, "UNKNOWN,NAME", nullptr) + SortBase(h, ";", nullptr), 0);
    EXPECT_EQ(h->SortOrder, kept);
    EXPECT_EQ(SortBase(h, "AGE", counting(1)), 1);
    EXPECT_EQ(h->SortOrder, nullptr);

    std::string names;
    for (int i = 0; i < 40; ++i) names += "AGE NAME,";
    u32 count = 0;
    i32 slots[22] = {};
    EXPECT_EQ(get_fields(h, names.c_str(), &count, slots) + slots[21], 0);
    EXPECT_EQ(count, 21u);

    setFilter(h, {2, 99, 4});  // the second cannot be read
    h->SortDescending = 0;
    h->CaseInsensitive = 0;
    EXPECT_EQ(baseOrder(h, "NAME"), (Order{1, 2, 0}));
    h->FilterCount = 0;
    EXPECT_EQ(baseOrder(h, "AGE"), Order{});
}

/// Sorts in all ways: without a callback, with one, and stopped.
void expectAsPlain(DbfBase* h, const std::string& list) {
    const char* const fields = list.c_str();
    const Order plain = plainOrder(h, fields, counting(0));
    const int plainCalls = calls;
    reads = 0;
    h->AfterRead = [](DbfBase*) { return ++reads; };
    EXPECT_EQ(baseOrder(h, fields), plain) << list;
    EXPECT_EQ(reads, plain.size() > 1 ? static_cast<int>(plain.size()) : 0);
    EXPECT_EQ(baseOrder(h, fields, counting(0)), plain) << list;
    EXPECT_EQ(calls, plainCalls);
    if (plainCalls == 0) return;
    const int stop = 1 + static_cast<int>(below(static_cast<unsigned>(plainCalls)));
    EXPECT_EQ(plainOrder(h, fields, counting(stop)), Order{});
    EXPECT_EQ(baseOrder(h, fields, counting(stop)), Order{});
    EXPECT_EQ(calls, stop);
}

/// A field of random bytes out of one of several alphabets, or like the end of a key, which lets
/// keys begin with other keys.
std::string randomField(unsigned length) {
    static const std::string alphabets[] = {" ", "\0"s, "012", " -.0123456789", "aAbB\xE0 ", ""};
    if (length == 20 && below(2) == 0) {
        const char digit = static_cast<char>('0' + below(10));
        return padded(padded("", 9) + digit + std::string(below(3), 'x'), 20);
    }
    const std::string& set = alphabets[below(std::size(alphabets))];
    std::string field(length, 0);
    for (char& c : field) c = set.empty() ? static_cast<char>(dice()) : set[dice() % set.size()];
    return field;
}

TEST(Sort, InMemoryAsPlain) {
    static const std::string types = "CNFLDMTTGYBI0@+OVQW";
    const unsigned lengths[] = {20, 6, 5, 1, 8, 10, 8, 14, 4, 8, 8, 4, 1, 8, 4, 8, 5, 3, 10};
    Layout layout;
    for (unsigned i = 0; i < types.size(); ++i) {
        layout.columns.push_back({"F" + std::to_string(i), types[i], lengths[i], types[i] == 'N'});
    }
    for (int round = 0; round < 200; ++round) {
        layout.version = below(4) == 0 ? 0xE5 : 0x03;
        layout.records.assign(below(round % 20 == 0 ? 1500 : 90), " ");
        for (std::string& record : layout.records) {
            for (const Column& c : layout.columns) record += randomField(c.length);
        }
        const TempDir dir;
        const Table table = openLayout(dir, layout);
        DbfBase* const h = table.get();
        ASSERT_NE(h, nullptr);
        GetMemCalcField(h);
        AddCalcField(h, "K0", "RTRIM(F0)");
        AddCalcField(h, "K1", "F1*F2");
        for (i32* option : {&h->RawNumeric, &h->MemoAsNumber, &h->TrimMode, &h->DateFormat}) {
            *option = static_cast<i32>(below(5));
        }
        h->Reverse = below(2) == 0;
        h->CaseInsensitive = below(2) == 0;
        h->SortDescending = below(2) == 0;
        Order passing(reccount(h) / 2);
        for (u32& record : passing) record = below(reccount(h));
        if (below(2) == 0) setFilter(h, passing);
        std::string fields = "K" + std::to_string(below(2));
        if (below(3) != 0) fields = "F" + std::to_string(below(19));
        if (below(3) == 0) fields += ";F" + std::to_string(below(19));
        expectAsPlain(h, fields);
        FreeMemCalcField(h);
    }
}

TEST(Sort, KeysOfOddLengths) {
    const TempDir dir;
    const Table wide = openTexts(dir, {"A", 'C', 0, 0xFE}, {"c", "a", "a", "b"});
    EXPECT_EQ(baseOrder(wide.get(), "A A"), (Order{1, 2, 3, 0}));

    // The key of record 0 begins that of record 1. Only as much as the first key has is compared.
    const Table begun = openTexts(dir, {"A", 'C', 20}, {"", "         0x"});
    GetMemCalcField(begun.get());
    AddCalcField(begun.get(), "K", "RTRIM(A)");
    EXPECT_EQ(baseOrder(begun.get(), "K"), (Order{0, 1}));
    FreeMemCalcField(begun.get());

    // More than is kept in memory, in keys that fill their buffers.
    std::vector<std::string> texts;
    Order expected;
    for (u32 i = 0; i < 4200; ++i) {
        texts.emplace_back(1, static_cast<char>('A' + i % 60));
        expected.push_back(i % 70 * 60 + i / 70);
    }
    const Table many = openTexts(dir, {"A", 'C', 1}, texts);
    many->CaseInsensitive = 1;
    many->UpperCaseCallback = [](char* key, DbfBase*, int) {
        return std::memset(key + 1, 'x', 65535), 1;
    };
    EXPECT_EQ(baseOrder(many.get(), "A"), expected);
}

#if !defined(__SANITIZE_ADDRESS__)  // there a failed allocation ends the program
TEST(Sort, WithoutMemoryTheViewStays) {
    const TempDir dir;
    const Table h = openLayout(dir, people);
    ASSERT_EQ(SortBase(h.get(), "NAME", nullptr), 1);
    const u32* kept = h->SortOrder;
    h->Header.RecordCount = 0x7FFFFFFF;
    rlimit limit{};
    getrlimit(RLIMIT_AS, &limit);
    const rlimit none{1, limit.rlim_max};
    setrlimit(RLIMIT_AS, &none);
    const int result = SortBase(h.get(), "AGE", nullptr);
    setrlimit(RLIMIT_AS, &limit);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(h->SortOrder, kept);
}
#endif

TEST(Seek, BisectsTheOrder) {
    const TempDir dir;
    const Table h = openLayout(dir, people);
    h->CaseInsensitive = 1;
    SortBase(h.get(), "NAME", nullptr);  // Ann Ann bob bob BOB
    const struct {
        const char* text;
        char exact;
        i32 position;
    } cases[] = {{"BOB", 1, 2}, {"a", 1, 1},    {"", 1, 2},    {"zoe", 1, -1},
                 {"zoe", 0, 5}, {"Abe", 1, -1}, {"Abe", 0, -1}};
    for (const auto& c : cases) {
        EXPECT_EQ(SeekValue(h.get(), 0, c.text, c.exact), c.position) << c.text;
    }
    h->CaseInsensitive = 0;
    EXPECT_EQ(SeekValue(h.get(), 0, "a", 1), -1);
    EXPECT_EQ(SeekValue(h.get(), 9, "a", 1), -1);  // no such field
    ClearSort(h.get());
    setFilter(h.get(), {1});
    EXPECT_EQ(SeekValue(h.get(), 0, "An", 1), 0);
    EXPECT_EQ(SeekValue(h.get(), 0, "An ", 0), -1);
}

}  // namespace
