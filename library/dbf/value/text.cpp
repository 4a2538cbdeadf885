// Field text: every field type as text in TextBuffer.
//
// Numbers are printed only where the stored text is not already what printing would give.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "dbf/table/table.h"
#include "dbf/value/reference.h"
#include "dbf/value/value.h"
#include "internal/bytes.h"
#include "internal/decimal.h"

namespace mira {
namespace {

constexpr unsigned kOrderedDecimals = 8;
constexpr unsigned kCurrencyDecimals = 4;

enum TrimModes { kTrimEnd = 1, kTrimStart = 2, kTrimBoth = 3 };

/// True for a stored number that printing with the field's width and decimals would reproduce:
/// right-aligned, without superfluous zeros, all decimals there, few enough digits to be exact.
bool isCanonical(std::string_view stored, const DbfField& f) {
    const StoredDecimal number = scanDecimal(stored);
    if (number.end != stored.data() + stored.size() || number.decimals != f.Decimals ||
        number.point != (f.Decimals != 0) || number.whole + number.decimals > kExactDigits) {
        return false;
    }
    if (hidesZero(f)) return true;  // point and decimals leave no room for more
    return number.whole == 1 || (number.whole > 1 && *number.first != '0');
}

/// Copies whole words. What the last one has beyond the text becomes the zero byte after it.
const char* copyStored(DbfBase* h, std::string_view stored) {
    const auto* from = reinterpret_cast<const u8*>(stored.data());
    auto* to = reinterpret_cast<u8*>(h->TextBuffer);
    std::size_t left = stored.size();
    for (; left >= sizeof(u64); left -= sizeof(u64)) {
        storeLe64(to, loadLe64(from));
        from += sizeof(u64);
        to += sizeof(u64);
    }
    storeLe64(to, loadLe64(from) & ((u64{1} << 8 * left) - 1));
    return h->TextBuffer;
}

}  // namespace

const char* renderNothing(DbfBase* h, int /*field*/) {
    h->TextBuffer[0] = 0;
    return h->TextBuffer;
}

const char* renderLogical(DbfBase* h, int field) {
    h->TextBuffer[0] = static_cast<char>(fieldPrefix<1>(h, field)[0]);
    h->TextBuffer[1] = 0;
    return h->TextBuffer;
}

const char* renderDecimal(DbfBase* h, int field) {
    const DbfField& f = h->Fields[field];
    const std::string_view stored = storedText(h, field);
    if (h->RawNumeric != 0 || isCanonical(stored, f)) return copyStored(h, stored);
    const std::size_t length = printFixed(h->TextBuffer, GetFloat(h, field), f.Length, f.Decimals);
    if (hidesZero(f)) std::memmove(h->TextBuffer, h->TextBuffer + 1, length);
    return h->TextBuffer;
}

const char* renderInteger(DbfBase* h, int field) {
    printInteger(h->TextBuffer, static_cast<i32>(GetInt(h, field)), kIntegerWidth);
    return h->TextBuffer;
}

const char* renderOrdered(DbfBase* h, int field) {
    printFixed(h->TextBuffer, GetInvertedDouble(h, field), kDoubleWidth, kOrderedDecimals);
    return h->TextBuffer;
}

const char* renderCurrency(DbfBase* h, int field) {
    const auto stored = static_cast<i64>(loadLe64(fieldPrefix<8>(h, field).data()));
    if (stored > -kExactCurrency && stored < kExactCurrency) {
        printScaled(h->TextBuffer, stored < 0, static_cast<u64>(stored < 0 ? -stored : stored),
                    kCurrencyWidth, kCurrencyDecimals);
    } else {
        printFixed(h->TextBuffer, GetCurrency(h, field), kCurrencyWidth, kCurrencyDecimals);
    }
    return h->TextBuffer;
}

const char* renderBinaryOrDouble(DbfBase* h, int field) {
    const DbfField& f = h->Fields[field];
    if (f.Length != 8) return renderMemo(h, field);
    printFixed(h->TextBuffer, GetDouble(h, field), kDoubleWidth, f.Decimals);
    return h->TextBuffer;
}

const char* renderMemo(DbfBase* h, int field) {
    const MemoReference reference = memoReference(h, field);
    const auto block = static_cast<i32>(reference.block);
    if (h->MemoAsNumber == 0) {
        std::memcpy(h->TextBuffer, reference.isBlank ? "Empty memo" : "Full memo ", 11);
    } else if (flavourOf(h->Header.Version).lengthInReference && !reference.isBlank) {
        std::snprintf(h->TextBuffer, kTextBufferSize, "%5d %5d", block,
                      static_cast<i32>(reference.length));
    } else {
        printInteger(h->TextBuffer, block, kIntegerWidth);
    }
    return h->TextBuffer;
}

const char* GetString(DbfBase* h, int field) {
    copyStored(h, storedText(h, field));
    return DStrTrim(h, h->TrimMode);
}

char* DStrTrim(DbfBase* h, int mode) {
    char* const text = h->TextBuffer;
    if (mode < kTrimEnd || mode > kTrimBoth) return text;
    std::size_t length = std::strlen(text);
    if (mode != kTrimStart) {
        while (length > 0 && text[length - 1] == ' ') --length;
        text[length] = 0;
    }
    if (mode != kTrimEnd) {
        const std::size_t blanks = std::strspn(text, " ");
        std::memmove(text, text + blanks, length - blanks + 1);
    }
    return text;
}

int GetBool(DbfBase* h, int field) {
    const u8 letter = fieldPrefix<1>(h, field)[0];
    return letter == 'T' || letter == 't' || letter == 'Y' || letter == 'y' ? 1 : 0;
}

}  // namespace mira
