// Quicksort of elements of any width, with a selection sort for short parts. The handle stops it:
// once SortRecA is -1 nothing more is compared, and the elements are left in no particular order.
#include <algorithm>
#include <cstddef>
#include <utility>

#include "mira.h"

namespace mira {
namespace {

constexpr std::size_t kShort = 8;  // parts of up to this many elements go to shortsort

/// The larger part waits, so that a part halves at least with each one waiting: 2^32 elements get
/// down to kShort in less than 30 steps, whatever compare answers.
constexpr std::size_t kWaiting = 30;

struct Part {
    char* low;  ///< first element
    char* end;  ///< past the last element
    std::size_t bytes() const { return static_cast<std::size_t>(end - low); }
};

bool stopped(const DbfBase* h) { return h != nullptr && h->SortRecA == -1; }

/// Divides a part by its middle element: left gets what is not greater, right what is not smaller,
/// and the element itself lies between them in its final place. False when stopped.
bool divide(const Part& part, u32 width, CompareFunction compare, DbfBase* h, Part* left,
            Part* right) {
    char* const pivot = part.low;
    myswap(part.low + part.bytes() / width / 2 * width, pivot, width);
    char* up = part.low;
    char* down = part.end;
    for (;;) {
        do up += width;
        while (up < part.end && compare(up, pivot, h) <= 0);
        if (stopped(h)) return false;
        do down -= width;
        while (down > pivot && compare(down, pivot, h) >= 0);
        if (stopped(h)) return false;
        if (down < up) break;
        myswap(up, down, width);
    }
    myswap(pivot, down, width);
    *left = {part.low, down};
    *right = {up, part.end};
    return true;
}

}  // namespace

void myswap(char* a, char* b, u32 width) {
    if (a != b) std::swap_ranges(a, a + width, b);
}

void shortsort(char* low, char* high, u32 width, CompareFunction compare, DbfBase* h) {
    if (stopped(h)) return;
    for (; high > low; high -= width) {
        char* largest = low;
        for (char* p = low + width; p <= high; p += width) {
            if (compare(p, largest, h) > 0) largest = p;
        }
        myswap(largest, high, width);
    }
}

void myqsort(void* base, u32 count, u32 width, CompareFunction compare, DbfBase* h) {
    if (count < 2 || width == 0) return;
    char* const first = static_cast<char*>(base);
    Part waiting[kWaiting];
    std::size_t waitingCount = 0;
    Part part = {first, first + std::size_t{count} * width};
    for (;;) {
        Part next = {};
        if (part.bytes() / width <= kShort) {
            shortsort(part.low, part.end - width, width, compare, h);
            if (stopped(h)) return;
        } else {
            Part later;
            if (!divide(part, width, compare, h, &later, &next)) return;
            if (next.bytes() > later.bytes()) std::swap(next, later);
            if (later.bytes() > width) waiting[waitingCount++] = later;
        }
        if (next.bytes() > width) {
            part = next;
        } else if (waitingCount != 0) {
            part = waiting[--waitingCount];
        } else {
            return;
        }
    }
}

}  // namespace mira
