// Sorting the view in memory.
//
// The plain way compares two records by reading them and building their keys in SortKeyA and
// SortKeyB. Where all keys fit into memory they are read once, in order of position, and give the
// same result:
//   - With a callback, the same quicksort makes the same comparisons, of the same keys.
//   - Without one, only the order counts. A comparison looks at as many characters as its first key
//     has. As long as no key is the beginning of another one that is a total order, and any way of
//     sorting leads to it; else the same quicksort runs as well.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <span>
#include <utility>

#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "dbf/view/sortkeys.h"
#include "internal/restore.h"

namespace mira {

namespace {

constexpr i32 kNoKey = -2;    // SortRecA and SortRecB: the key buffer holds no key
constexpr i32 kStopped = -1;  // SortRecA: the callback has stopped the sort
constexpr std::size_t kFew = 16;

/// Compares two keys for the sort that runs and asks its callback.
int compareKeys(DbfBase* h, const char* a, const char* b) {
    const int difference = std::strncmp(a, b, std::strlen(a));
    if (h->SortCallback != nullptr && h->SortCallback() != 0) h->SortRecA = kStopped;
    const int sign = (difference > 0) - (difference < 0);
    return h->SortDescending != 0 ? -sign : sign;
}

/// Brings the key of a position into a key buffer, unless it is there.
void holdKey(DbfBase* h, const void* position, i32* held, char* key) {
    const u32 wanted = *static_cast<const u32*>(position);
    if (static_cast<u32>(*held) == wanted) return;
    *held = static_cast<i32>(wanted);
    readSortKey(h, wanted, key);
}

int compareHeld(const void* a, const void* b, DbfBase* h) {
    if (h->SortRecA == kStopped) return 0;
    return compareKeys(h, *static_cast<const char* const*>(a), *static_cast<const char* const*>(b));
}

/// Four characters of a key in the high half, the key's place in the low half: sorting the numbers
/// sorts the keys by these characters.
using Element = u64;

u32 placeOf(Element e) { return static_cast<u32>(e); }

u32 charactersOf(Element e) { return static_cast<u32>(e >> 32); }

/// Four characters of a text as a number that sorts as they do; zeros after its end.
u32 fourCharacters(const char* text) {
    u32 number = 0;
    for (int i = 0; i < 4; ++i) {
        number = number << 8 | static_cast<u8>(*text);
        text += *text != 0;
    }
    return number;
}

/// Loads the characters from a depth on; false when all keys have the same.
bool loadCharacters(const KeyStore& keys, std::span<Element> elements, std::size_t depth) {
    u32 differences = 0;
    for (Element& e : elements) {
        e = Element{fourCharacters(keys.at(placeOf(e)) + depth)} << 32 | placeOf(e);
        differences |= charactersOf(e) ^ charactersOf(elements[0]);
    }
    return differences != 0;
}

/// Sorts keys that agree in as many characters as the depth is. Elements are sorted as numbers, by
/// the next four characters; runs that agree in these too are sorted from there on. The longest run
/// is left to the loop, so that a recursive call gets half of the elements at most.
void sortFrom(const KeyStore& keys, std::span<Element> elements, std::size_t depth) {
    for (; elements.size() > kFew; depth += 4) {
        if (!loadCharacters(keys, elements, depth)) continue;
        std::sort(elements.begin(), elements.end());
        std::span<Element> longest;
        for (auto first = elements.begin(); first != elements.end();) {
            const u32 characters = charactersOf(*first);
            const auto last = std::find_if(first + 1, elements.end(), [characters](Element e) {
                return charactersOf(e) != characters;
            });
            std::span<Element> run(first, last);
            if (run.size() > longest.size()) std::swap(run, longest);
            if (run.size() > 1) sortFrom(keys, run, depth + 4);
            first = last;
        }
        elements = longest;
    }
    std::sort(elements.begin(), elements.end(), [&](Element a, Element b) {
        return std::strcmp(keys.at(placeOf(a)) + depth, keys.at(placeOf(b)) + depth) < 0;
    });
}

/// Reads every record of the view; places gets where its key is. False when the keys do not fit.
bool readKeys(DbfBase* h, char* key, KeyStore& keys, std::span<u32> places) {
    for (std::size_t i = 0; i < places.size(); ++i) {
        const auto position = static_cast<u32>(i);
        const std::size_t length = readSortKey(h, position, key);
        const u64 all = places.size() * (length + KeyStore::kBesides);
        if (position == 0 && all > KeyStore::kBudget) return false;
        const std::optional<u32> place = keys.add(key, length, position);
        if (!place) return false;
        places[position] = *place;
    }
    return true;
}

/// Between sorted keys: those that begin with the same text stand together, the text first.
bool someKeyBeginsAnother(const KeyStore& keys, std::span<const Element> elements) {
    const auto begins = [&](Element a, Element b) {
        const char* text = keys.at(placeOf(a));
        return std::strncmp(text, keys.at(placeOf(b)), std::strlen(text)) == 0;
    };
    return std::adjacent_find(elements.begin(), elements.end(), begins) != elements.end();
}

/// Makes the positions of keys in order of the places of keys in any. False, with nothing changed,
/// when there is no total order, or no memory.
bool sortTotally(const DbfBase* h, const KeyStore& keys, std::span<u32> places) {
    const Owned<Element> memory = allocate<Element>(places.size());
    if (!memory) return false;
    const std::span<Element> elements(memory.get(), places.size());
    std::copy(places.begin(), places.end(), elements.begin());
    sortFrom(keys, elements, 0);
    if (!keys.sameLength() && someKeyBeginsAnother(keys, elements)) return false;
    std::transform(elements.begin(), elements.end(), places.begin(),
                   [&](Element e) { return positionOf(keys.at(placeOf(e))); });
    if (h->SortDescending != 0) std::reverse(places.begin(), places.end());
    return true;
}

/// Sorts as the plain way does, only that the keys are there. False without memory.
bool sortHeld(DbfBase* h, const KeyStore& keys, std::span<u32> places) {
    const std::size_t count = places.size();
    const Owned<const char*> held = allocate<const char*>(count);
    if (!held) return false;
    std::transform(places.begin(), places.end(), held.get(), [&](u32 p) { return keys.at(p); });
    myqsort(held.get(), static_cast<u32>(count), sizeof(const char*), compareHeld, h);
    std::transform(held.get(), held.get() + count, places.begin(), positionOf);
    return true;
}

/// False, with nothing compared, when the keys do not fit.
bool sortInMemory(DbfBase* h, char* key, std::span<u32> positions) {
    KeyStore keys;
    if (!readKeys(h, key, keys, positions)) return false;
    return (h->SortCallback == nullptr && sortTotally(h, keys, positions)) ||
           sortHeld(h, keys, positions);
}

/// Sorts with two keys in memory.
void sortByReading(DbfBase* h, std::span<u32> positions) {
    std::iota(positions.begin(), positions.end(), u32{0});
    myqsort(positions.data(), static_cast<u32>(positions.size()), sizeof(u32), Compare, h);
}

/// Takes an order of count positions, unless there is nothing to map, or a hook has left fewer
/// records in the view.
void takeOrder(DbfBase* h, Owned<u32> order, u32 count) {
    const bool taken = order && count != 0 && count <= reccount(h);
    setSortOrder(h, taken ? std::move(order) : nullptr, taken ? count : 0);
}

}  // namespace

int Compare(const void* a, const void* b, DbfBase* h) {
    if (h->SortRecA == kStopped || h->SortKeyA == nullptr || h->SortKeyB == nullptr) return 0;
    holdKey(h, a, &h->SortRecA, h->SortKeyA);
    holdKey(h, b, &h->SortRecB, h->SortKeyB);
    return compareKeys(h, h->SortKeyA, h->SortKeyB);
}

void real_sort(DbfBase* h, u32** order, StopCallback callback) {
    const u32 count = reccount(h);
    const Owned<char> keyA = allocate<char>(kSortKeySize);
    const Owned<char> keyB = allocate<char>(kSortKeySize);
    Owned<u32> sorted = allocate<u32>(std::max(count, u32{1}));
    h->SortRecA = kNoKey;
    h->SortRecB = kNoKey;
    *order = nullptr;
    if (!keyA || !keyB || !sorted) return;
    // A hook may sort while a sort runs.
    StopCallback const outer = h->SortKeyA != nullptr ? h->SortCallback : nullptr;
    const Restore outerA(h->SortKeyA, keyA.get());
    const Restore outerB(h->SortKeyB, keyB.get());
    const Restore outerCallback(h->SortCallback, callback, outer);
    const std::span<u32> positions(sorted.get(), count);
    if (count < 2 || !sortInMemory(h, keyA.get(), positions)) sortByReading(h, positions);
    if (h->SortRecA != kStopped) *order = sorted.release();
}

int SortBase(DbfBase* h, const char* fields, StopCallback callback) {
    if (get_fields(h, fields, &h->SortFieldCount, h->SortFields) != 0) return 0;
    if (keepPrivate(h) == nullptr) return 0;
    h->SortKeyCount = h->SortFieldCount;
    h->SortKeyFields = reinterpret_cast<u32*>(h->SortFields);
    // Positions are those of the unsorted view now. The order there was comes back when there is no
    // memory for a new one.
    Owned<u32> previous(std::exchange(h->SortOrder, nullptr));
    const u32 previousCount = sortOrderCount(h);
    setSortOrderCount(h, 0);
    const u32 count = reccount(h);
    u32* order = nullptr;
    try {
        real_sort(h, &order, callback);
    } catch (...) {
        setSortOrder(h, std::move(previous), previousCount);
        throw;
    }
    if (order == nullptr && h->SortRecA != kStopped) {
        setSortOrder(h, std::move(previous), previousCount);
        return 0;
    }
    takeOrder(h, Owned<u32>(order), count);
    return 1;
}

void ClearSort(DbfBase* h) {
    setSortOrder(h);
    h->SortFieldCount = 0;
}

}  // namespace mira
