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

constexpr std::size_t kWordSize = sizeof(u64);

constexpr unsigned kCurrencyDecimals = 4;

/// True for a stored number that printing with the field's width and decimals would reproduce:
/// right-aligned, without superfluous zeros, all decimals there, few enough digits to be exact.
bool isCanonical(const StoredDecimal& number, std::string_view stored, const DbfField& f) {
    if (number.end != stored.data() + stored.size() || number.decimals != f.Decimals ||
        number.point != (f.Decimals != 0) || number.whole + number.decimals > kExactDigits) {
        return false;
    }
    if (hidesZero(f)) return true;  // point and decimals leave no room for more
    return number.whole == 1 || (number.whole > 1 && *number.first != '0');
}

/// Copies whole words. What the last one has beyond the text becomes the zero byte after it.
const char* copyStored(DbfBase* h, std::string_view stored) {
    const char* from = stored.data();
    char* to = h->TextBuffer;
    std::size_t left = stored.size();
    for (; left >= 2 * kWordSize; left -= 2 * kWordSize) {
        std::memcpy(to, from, 2 * kWordSize);
        from += 2 * kWordSize;
        to += 2 * kWordSize;
    }
    if (left >= kWordSize) {
        std::memcpy(to, from, kWordSize);
        from += kWordSize;
        to += kWordSize;
        left -= kWordSize;
    }
    const u64 word = loadLe64(reinterpret_cast<const u8*>(from));
    storeLe64(reinterpret_cast<u8*>(to), word & ((u64{1} << 8 * left) - 1));
    return h->TextBuffer;
}

/// Not part of renderDecimal, so that the usual way saves no registers.
[[gnu::noinline]] const char* printDecimal(DbfBase* h, const DbfField& f, bool fewDigits) {
    char* const text = h->TextBuffer;
    const std::string_view stored = storedText(h, f);
    std::size_t length = fewDigits ? printAnew(text, stored, f.Length, f.Decimals) : 0;
    if (length == 0) length = printFixed(text, readDecimal(stored), f.Length, f.Decimals);
    if (hidesZero(f)) std::memmove(text, text + 1, length);
    return text;
}

}  // namespace

const char* renderNothing(DbfBase* h, int /*field*/) {
    h->TextBuffer[0] = 0;
    return h->TextBuffer;
}

const char* renderLogical(DbfBase* h, int field) {
    const u8 letter = fieldPrefix<1>(h, field)[0];
    storeLe64(reinterpret_cast<u8*>(h->TextBuffer), letter);  // and its zero byte
    return h->TextBuffer;
}

const char* renderDecimal(DbfBase* h, int field) {
    const DbfField& f = h->Fields[field];
    const std::string_view stored = storedText(h, f);
    const StoredDecimal number = scanDecimal(stored);
    if (h->RawNumeric != 0 || isCanonical(number, stored, f)) return copyStored(h, stored);
    return printDecimal(h, f, number.whole + f.Decimals <= kExactDigits);
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

const char* renderText(DbfBase* h, int field) {
    copyStored(h, storedText(h, h->Fields[field]));
    return h->TrimMode == 0 ? h->TextBuffer : DStrTrim(h, h->TrimMode);
}

}  // namespace mira
