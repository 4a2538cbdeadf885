// Lists of field names, and finding records by the beginning of a field's text.
#include <algorithm>
#include <cstring>
#include <functional>

#include "dbf/table/table.h"
#include "internal/ascii.h"
#include "internal/file.h"

namespace mira {

namespace {

constexpr char kListSeparators[] = ";, \t\n\r";
constexpr u32 kSortFieldMax = 21;
constexpr u32 kPresetSlots = 5;
constexpr i32 kNoField = -1;

/// Number of a table or calculated field, kNoField when there is none.
i32 numberOfName(DbfBase* h, const char* name) {
    const u32 field = GetFieldNum(h, name);
    return field != kNoPosition ? static_cast<i32>(field) : GetCalcI(h, name);
}

/// Compares a text with the beginning of a field of the record at a position.
int compareAt(DbfBase* h, u32 position, int field, const char* text) {
    // What cannot be read compares as what the buffer holds. A calculated field is computed from
    // all of the record.
    if (field < h->FieldCount) {
        ReadField(h, position, field);
    } else {
        ReadRecord(h, position);
    }
    const char* value = GetStr(h, field);
    if (value == nullptr) value = "";
    const std::size_t length = std::strlen(text);
    return h->CaseInsensitive != 0 ? compareIgnoringCase(text, value, length)
                                   : std::strncmp(text, value, length);
}

/// Bisects the view for the position of a text.
i32 bisect(DbfBase* h, int field, const char* text, bool exact) {
    const i64 count = reccount(h);
    i64 low = 0;
    i64 high = count;
    i64 previous = -1;
    i64 middle = count / 2;
    while (middle != previous && middle >= 0 && middle < high) {
        previous = middle;
        const int difference = compareAt(h, static_cast<u32>(middle), field, text);
        if (difference == 0) return static_cast<i32>(middle);
        if (difference < 0) {
            high = middle;
            middle -= std::max<i64>(1, (middle - low) / 2);
        } else {
            low = middle;
            middle += std::max<i64>(1, (high - middle) / 2);
        }
    }
    return exact ? -1 : static_cast<i32>(middle);
}

bool liesInTextBuffer(const DbfBase* h, const char* text) {
    const std::less<const char*> before;
    return h->TextBuffer != nullptr && !before(text, h->TextBuffer) &&
           before(text, h->TextBuffer + kTextBufferSize);
}

}  // namespace

int get_fields(DbfBase* h, const char* text, u32* count, i32* slots) {
    *count = 0;
    std::fill_n(slots, kPresetSlots, kNoField);
    const Owned<char> names = copyText(text);
    if (!names) return 1;
    char* name = names.get();
    while (*count < kSortFieldMax) {
        name += std::strspn(name, kListSeparators);
        char* const end = name + std::strcspn(name, kListSeparators);
        const bool last = *end == 0;
        *end = 0;
        if (end == name) break;
        slots[*count] = numberOfName(h, name);
        if (slots[*count] == kNoField) break;
        ++*count;
        name = last ? end : end + 1;
    }
    return slots[0] == kNoField ? 1 : 0;
}

i32 SeekValue(DbfBase* h, int field, const char* text, char exact) {
    if (text == nullptr) return -1;
    Owned<char> copy;
    if (liesInTextBuffer(h, text)) {  // where the values of the records go
        copy = copyText(text);
        if (!copy) return -1;
        text = copy.get();
    }
    if (reccount(h) == 1) return compareAt(h, 0, field, text) == 0 ? 0 : -1;
    return bisect(h, field, text, exact != 0);
}

}  // namespace mira
