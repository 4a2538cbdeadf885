// Building sort keys from the rendered fields of a record.
#include "dbf/view/sortkeys.h"

#include <algorithm>
#include <string_view>

#include "dbf/table/position.h"
#include "dbf/table/table.h"
#include "internal/datelayout.h"
#include "internal/restore.h"
#include "internal/textout.h"

namespace mira {

namespace {

constexpr std::size_t kPositionWidth = 10;
constexpr std::size_t kPartsSize = kSortKeySize - kPositionWidth;  // zero byte included

/// Characters that a field takes in the key, unless its text is longer.
std::size_t partWidth(const DbfBase* h, int field, std::size_t length) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr) {
        // The text is there, so the slot is.
        return h->CalcFields != nullptr && h->CalcFields->Slots[field].Flags[2] != 0 ? length : 0;
    }
    if (valueClass(*f) == ValueClass::Date) return kDateDigits;
    if (valueClass(*f) == ValueClass::Moment) return kDateTimeDigits;
    return std::min<std::size_t>(fieldLength(*f), kTextBufferSize - 1);
}

/// True for fields whose text is the bytes of the record.
bool showsStoredBytes(const DbfBase* h, const DbfField& f) {
    return isText(f) || (valueClass(f) == ValueClass::Decimal && h->RawNumeric != 0);
}

/// Fills the text in TextBuffer with spaces up to a width. Where the record holds a zero byte, what
/// it holds after it belongs to the key as well.
void padPart(DbfBase* h, int field, std::size_t length, std::size_t width) {
    char* const text = h->TextBuffer;
    std::size_t tail = width;
    if (showsStoredBytes(h, h->Fields[field])) {
        const std::span<u8> stored = fieldBytes(h, field);
        const auto zero = std::find(stored.begin(), stored.end(), u8{0});
        tail = std::min(width, static_cast<std::size_t>(zero - stored.begin()) + 1);
    }
    if (tail > length) std::memset(text + length, ' ', tail - length);
    std::replace(text + tail, text + width, '\0', ' ');
    text[width] = 0;
}

/// Makes a negative number sort below all others, and the lower the greater its magnitude is.
void invertNumber(char* text, std::size_t length) {
    for (char* c = text; c != text + length; ++c) {
        if (*c == ' ' || *c == '-') *c = '0';
        if (*c != '.') *c = static_cast<char>('9' + 1 - *c);
    }
}

// A number whose text is wider than others of its field begins with bytes that no text of the usual
// width begins with: those of negative numbers lie below an inverted blank, those of positive ones
// above "9", and letter case does not change them. The wider, the farther out; infinities farthest.
constexpr std::string_view kInfinity = "inf";
constexpr std::size_t kSteps = 7;
constexpr char kBelowAll = '\x01', kBelow = '\x02', kLowest = '9' + 1 - '0' - 1;
constexpr char kAboveAll = '\x7F', kAbove = '~', kHighest = '9' + 1;

/// The start of a number that is some characters wider.
void putExcess(std::size_t excess, bool negative, TextOut& key) {
    for (--excess; excess >= kSteps; excess -= kSteps) key.put(negative ? kBelow : kAbove);
    key.put(static_cast<char>(negative ? kLowest - excess : kHighest + excess));
}

/// A number, whose text is in TextBuffer.
void putNumber(DbfBase* h, int field, std::size_t length, TextOut& key) {
    char* const text = h->TextBuffer;
    const auto usual = static_cast<std::size_t>(GetLenView(h, field));
    const bool negative = std::memchr(text, '-', length) != nullptr;
    const bool wide = length > usual && (text[0] == '-' || !negative);
    if (std::string_view(text, length).ends_with(kInfinity)) {
        key.put(negative ? kBelowAll : kAboveAll);
    } else if (wide) {
        putExcess(length - usual, negative, key);
    }
    if (!negative) {
        key.put({text, length});
        return;
    }
    invertNumber(text, length);
    key.put(text + (wide ? 1 : 0));  // a stray ":" has become the end
}

void putPart(DbfBase* h, int field, TextOut& key) {
    // Nothing for a number below zero, or a calculated field without a value.
    if (field < 0 || GetStr(h, field) == nullptr) return;
    char* const text = h->TextBuffer;
    std::size_t length = std::strlen(text);
    const std::size_t width = partWidth(h, field, length);
    const std::size_t usual = tableField(h, field) != nullptr ? width : kCalculatedWidth;
    // Other texts are the same whether they are numbers or not.
    const bool mayBeNumber = length > usual || std::memchr(text, '-', length) != nullptr ||
                             std::string_view(text, length).ends_with(kInfinity);
    if (length < width) {
        padPart(h, field, length, width);
        length = width;
    }
    if (mayBeNumber && if_digit_type(h, field) != 0) {
        putNumber(h, field, length, key);
    } else {
        key.put({text, length});
    }
}

/// The position right-aligned in kPositionWidth characters, and a zero byte.
void putPosition(char* to, u32 position) {
    to[kPositionWidth] = 0;
    for (std::size_t i = kPositionWidth; i-- > 0; position /= 10) {
        const bool digit = position != 0 || i == kPositionWidth - 1;
        to[i] = digit ? static_cast<char>('0' + position % 10) : ' ';
    }
}

}  // namespace

std::size_t readSortKey(DbfBase* h, u32 position, char* key) {
    const std::optional<u32> record = recordFromStart(h, position);
    if (!record || !readPhysicalRecord(h, *record))
        ClearRecord(h);  // sorts as a blank one, not by what the buffer happens to hold
    GetCompStr(position, key, h);
    IgnoreCase(h, key, h->OemConvert);
    const std::size_t length = strnlen(key, kPartsSize - 1);  // a callback may have moved the end
    putPosition(key + length, position);
    return length + kPositionWidth;
}

void GetCompStr(u32 /*record*/, char* key, DbfBase* h) {
    TextOut out(key, kPartsSize);
    const Restore dates(h->DateFormat, kDigitsFormat);
    for (u32 i = 0; i < h->SortKeyCount; ++i) {
        putPart(h, static_cast<int>(h->SortKeyFields[i]), out);
    }
}

}  // namespace mira
