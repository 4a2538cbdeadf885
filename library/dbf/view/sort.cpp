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

#include "dbf/table/table.h"
#include "dbf/view/sortkeys.h"

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

/// Element of the sort in memory.
union Element {
    u64 number;       ///< four characters of the key in the high half, its place in the low half
    const char* key;  ///< the key itself, for comparing two at a time
};
static_assert(sizeof(Element) == sizeof(u64));

u32 placeOf(Element e) { return static_cast<u32>(e.number); }

u32 charactersOf(Element e) { return static_cast<u32>(e.number >> 32); }

constexpr auto isLess = [](Element a, Element b) { return a.number < b.number; };

int compareHeld(const void* a, const void* b, DbfBase* h) {
    if (h->SortRecA == kStopped) return 0;
    return compareKeys(h, static_cast<const Element*>(a)->key, static_cast<const Element*>(b)->key);
}

/// Four characters of a text as a number that sorts as they do; zeros behind its end.
u32 fourCharacters(const char* text) {
    u32 number = 0;
    for (int i = 0; i < 4; ++i) {
        number = number << 8 | static_cast<u8>(*text);
        text += *text != 0;
    }
    return number;
}

/// Loads the characters from a column on; false when all keys have the same.
bool loadCharacters(const KeyStore& keys, std::span<Element> elements, std::size_t column) {
    u32 differences = 0;
    for (Element& e : elements) {
        e.number = u64{fourCharacters(keys.at(placeOf(e)) + column)} << 32 | placeOf(e);
        differences |= charactersOf(e) ^ charactersOf(elements[0]);
    }
    return differences != 0;
}

/// Sorts keys that agree in all characters before a column. Elements are sorted as numbers, by four
/// characters; runs that agree in these too are sorted from the next column on. The longest run is
/// left to the loop, so that a recursive call gets half of the elements at most.
void sortFrom(const KeyStore& keys, std::span<Element> elements, std::size_t column) {
    for (; elements.size() > kFew; column += 4) {
        if (!loadCharacters(keys, elements, column)) continue;
        std::sort(elements.begin(), elements.end(), isLess);
        std::span<Element> longest;
        for (auto first = elements.begin(); first != elements.end();) {
            const u32 characters = charactersOf(*first);
            const auto last = std::find_if(first + 1, elements.end(), [characters](Element e) {
                return charactersOf(e) != characters;
            });
            std::span<Element> run(first, last);
            if (run.size() > longest.size()) std::swap(run, longest);
            if (run.size() > 1) sortFrom(keys, run, column + 4);
            first = last;
        }
        elements = longest;
    }
    std::sort(elements.begin(), elements.end(), [&](Element a, Element b) {
        return std::strcmp(keys.at(placeOf(a)) + column, keys.at(placeOf(b)) + column) < 0;
    });
}

/// The keys of a view.
struct HeldKeys {
    KeyStore store;
    Block<Element> block;
    std::span<Element> elements;
};

/// Reads every record of the view. False when the keys do not fit.
bool readKeys(DbfBase* h, u32 count, HeldKeys& keys) {
    keys.block = allocate<Element>(count);
    if (!keys.block) return false;
    keys.elements = {keys.block.get(), count};
    for (u32 position = 0; position < count; ++position) {
        const std::size_t length = readSortKey(h, position, h->SortKeyA);
        if (position == 0 && u64{count} * (length + 1) > KeyStore::kBudget) return false;
        u32 place = 0;
        if (!keys.store.add(h->SortKeyA, length, &place)) return false;
        keys.elements[position].number = place;
    }
    return true;
}

/// Between sorted keys: those that begin with the same text stand together, the text first.
bool someKeyBeginsAnother(const HeldKeys& keys) {
    const auto begins = [&](Element a, Element b) {
        const char* text = keys.store.at(placeOf(a));
        return std::strncmp(text, keys.store.at(placeOf(b)), std::strlen(text)) == 0;
    };
    return std::adjacent_find(keys.elements.begin(), keys.elements.end(), begins) !=
           keys.elements.end();
}

/// False, with nothing changed, when there is no total order.
bool sortTotally(DbfBase* h, HeldKeys& keys) {
    sortFrom(keys.store, keys.elements, 0);
    if (!keys.store.sameLength() && someKeyBeginsAnother(keys)) {
        for (Element& e : keys.elements) e.number = placeOf(e);
        std::sort(keys.elements.begin(), keys.elements.end(), isLess);
        return false;
    }
    if (h->SortDescending != 0) std::reverse(keys.elements.begin(), keys.elements.end());
    return true;
}

/// Puts a position in the place of every element and cuts the block to what is left.
template <typename PositionOf>
Block<u32> toPositions(HeldKeys& keys, const PositionOf& positionOf) {
    char* const bytes = reinterpret_cast<char*>(keys.block.get());
    for (std::size_t i = 0; i < keys.elements.size(); ++i) {
        const u32 position = positionOf(keys.elements[i]);
        std::memcpy(bytes + i * sizeof position, &position, sizeof position);
    }
    void* const whole = keys.block.release();
    void* const half = std::realloc(whole, keys.elements.size() * sizeof(u32));
    return Block<u32>(static_cast<u32*>(half != nullptr ? half : whole));
}

/// Sorts as the plain way does, only that the keys are there; no positions when stopped.
void sortHeld(DbfBase* h, HeldKeys& keys, Block<u32>* positions) {
    const std::span<Element> all = keys.elements;
    for (Element& e : all) e.key = keys.store.at(placeOf(e));
    myqsort(all.data(), static_cast<u32>(all.size()), sizeof(Element), compareHeld, h);
    if (h->SortRecA == kStopped) return;
    *positions = toPositions(keys, [](Element e) { return positionOfKey(e.key); });
}

/// Sorts in memory; no positions when stopped. False, with nothing compared, when the keys do not
/// fit.
bool sortInMemory(DbfBase* h, u32 count, Block<u32>* positions) {
    HeldKeys keys;
    if (!readKeys(h, count, keys)) return false;
    const KeyStore& store = keys.store;
    if (h->SortCallback != nullptr || !sortTotally(h, keys)) {
        sortHeld(h, keys, positions);
    } else if (store.sameLength()) {  // saves looking for the end of every key
        *positions = toPositions(keys, [&](Element e) { return store.indexOf(placeOf(e)); });
    } else {
        *positions =
            toPositions(keys, [&](Element e) { return positionOfKey(store.at(placeOf(e))); });
    }
    return true;
}

/// Sorts with two keys in memory; no positions when stopped or without memory.
void sortByReading(DbfBase* h, u32 count, Block<u32>* positions) {
    Block<u32> order = allocate<u32>(std::max(count, u32{1}));
    if (!order) return;
    std::iota(order.get(), order.get() + count, u32{0});
    myqsort(order.get(), count, sizeof(u32), Compare, h);
    if (h->SortRecA != kStopped) *positions = std::move(order);
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
    const Block<char> keyA = allocate<char>(kSortKeySize);
    const Block<char> keyB = allocate<char>(kSortKeySize);
    Block<u32> positions;
    h->SortRecA = kNoKey;
    h->SortRecB = kNoKey;
    if (keyA && keyB) {
        h->SortCallback = callback;
        h->SortKeyA = keyA.get();
        h->SortKeyB = keyB.get();
        if (count < 2 || !sortInMemory(h, count, &positions)) sortByReading(h, count, &positions);
        h->SortCallback = nullptr;
        h->SortKeyA = nullptr;
        h->SortKeyB = nullptr;
    }
    *order = positions.release();
}

int SortBase(DbfBase* h, const char* fields, StopCallback callback) {
    if (get_fields(h, fields, &h->SortFieldCount, h->SortFields) != 0) return 0;
    h->SortKeyCount = h->SortFieldCount;
    h->SortKeyFields = reinterpret_cast<u32*>(h->SortFields);
    // Positions are those of the unsorted view now. The order there was comes back when there is no
    // memory for a new one.
    Block<u32> previous(std::exchange(h->SortOrder, nullptr));
    const u32 previousCount = std::exchange(h->SortOrderCount, 0);
    const u32 count = reccount(h);
    u32* order = nullptr;
    real_sort(h, &order, callback);
    if (order == nullptr && h->SortRecA != kStopped) {
        h->SortOrder = previous.release();
        h->SortOrderCount = previousCount;
        return 0;
    }
    if (count == 0) std::free(std::exchange(order, nullptr));  // nothing to map
    h->SortOrder = order;
    h->SortOrderCount = order != nullptr ? count : 0;
    return 1;
}

void ClearSort(DbfBase* h) {
    std::free(h->SortOrder);
    h->SortOrder = nullptr;
    h->SortOrderCount = 0;
    h->SortFieldCount = 0;
}

}  // namespace mira
