// Field text: every field type as text in TextBuffer.
//
// Numbers are printed only where the stored text is not already what printing would give.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "dbf/table/table.h"
#include "dbf/value/value.h"
#include "internal/bytes.h"
#include "internal/convert.h"
#include "internal/decimal.h"

namespace mira {
namespace {

constexpr unsigned kIntegerWidth = 10;
constexpr unsigned kDoubleWidth = 20;
constexpr unsigned kOrderedDecimals = 8;
constexpr unsigned kCurrencyWidth = 24;
constexpr unsigned kCurrencyDecimals = 4;

constexpr std::size_t kShortField = 32;

enum TrimModes { kTrimEnd = 1, kTrimStart = 2, kTrimBoth = 3 };

bool isDigit(u8 c) { return c >= '0' && c <= '9'; }

/// Counts the digits from i on.
std::size_t digitRun(std::span<const u8> text, std::size_t i) {
    const std::size_t start = i;
    while (i < text.size() && isDigit(text[i])) ++i;
    return i - start;
}

/// True for a stored number that printing with the field's width and decimals would reproduce:
/// right-aligned, without superfluous zeros, all decimals there, few enough digits to be exact.
bool isCanonical(std::span<const u8> text, unsigned decimals) {
    std::size_t i = 0;
    while (i < text.size() && text[i] == ' ') ++i;
    if (i < text.size() && text[i] == '-') ++i;
    const std::size_t whole = digitRun(text, i);
    if (whole == 0 || whole + decimals > kExactDigits || (whole > 1 && text[i] == '0'))
        return false;
    i += whole;
    if (decimals == 0) return i == text.size();
    return i < text.size() && text[i] == '.' && digitRun(text, i + 1) == decimals &&
           i + 1 + decimals == text.size();
}

/// Short fields, as numbers are, are copied by inlined code, which is quicker than a call.
void copyStored(DbfBase* h, std::span<const u8> bytes) {
    if (bytes.size() <= kShortField) {
        std::copy(bytes.begin(), bytes.end(), h->TextBuffer);
    } else {
        std::memcpy(h->TextBuffer, bytes.data(), bytes.size());
    }
    h->TextBuffer[bytes.size()] = 0;
}

void renderNumber(DbfBase* h, int field, const DbfField& f) {
    const std::span<const u8> stored = fieldBytes(h, field);
    if (h->RawNumeric != 0) {
        copyStored(h, stored);
        return;
    }
    const bool noWhole = f.Decimals != 0 && f.Length == f.Decimals + 1;  // .50: no integer digit
    if (!noWhole && isCanonical(stored, f.Decimals)) {
        copyStored(h, stored);
        return;
    }
    const std::size_t length = printFixed(h->TextBuffer, GetFloat(h, field), f.Length, f.Decimals);
    if (noWhole) std::memmove(h->TextBuffer, h->TextBuffer + 1, length);
}

void renderCurrency(DbfBase* h, int field) {
    const auto stored = static_cast<i64>(loadLe64(fieldPrefix<8>(h, field).data()));
    if (stored > -kExactCurrency && stored < kExactCurrency) {
        printScaled(h->TextBuffer, stored < 0, static_cast<u64>(stored < 0 ? -stored : stored),
                    kCurrencyWidth, kCurrencyDecimals);
    } else {
        printFixed(h->TextBuffer, GetCurrency(h, field), kCurrencyWidth, kCurrencyDecimals);
    }
}

void renderPresence(DbfBase* h, bool present) {
    static constexpr char texts[2][11] = {"Empty memo", "Full memo "};
    std::memcpy(h->TextBuffer, texts[present ? 1 : 0], sizeof texts[0]);
}

/// The reference of an SMT memo: length in bytes 2 to 5, block in bytes 6 to 9.
void renderSmtMemo(DbfBase* h, int field) {
    const auto bytes = fieldPrefix<10>(h, field);
    const bool present = std::any_of(bytes.begin(), bytes.end(), [](u8 b) { return b != 0; });
    if (h->MemoAsNumber == 0) {
        renderPresence(h, present);
    } else if (!present) {
        printInteger(h->TextBuffer, 0, kIntegerWidth);
    } else {
        std::snprintf(h->TextBuffer, kTextBufferSize, "%5d %5d",
                      static_cast<i32>(loadLe32(bytes.data() + 6)),
                      static_cast<i32>(loadLe32(bytes.data() + 2)));
    }
}

void renderMemo(DbfBase* h, int field, const DbfField& f) {
    if (h->Header.Version == kVersionSmt) {
        renderSmtMemo(h, field);
        return;
    }
    const i32 block =
        wideLength(f) == 4 ? static_cast<i32>(GetInt(h, field)) : clampToI32(GetNumeric(h, field));
    if (h->MemoAsNumber == 0) {
        renderPresence(h, block != 0);
    } else {
        printInteger(h->TextBuffer, block, kIntegerWidth);
    }
}

}  // namespace

const char* renderField(DbfBase* h, int field) {
    const DbfField& f = h->Fields[field];
    switch (f.Type) {
        case 'C':
        case 'Q':
        case 'V':
        case '0':
            return GetString(h, field);
        case 'D':
        case 'T':
        case '@':
            renderDate(h, field);
            break;
        case 'L':
            h->TextBuffer[0] = static_cast<char>(fieldPrefix<1>(h, field)[0]);
            h->TextBuffer[1] = 0;
            break;
        case 'I':
        case '+':
            printInteger(h->TextBuffer, static_cast<i32>(GetInt(h, field)), kIntegerWidth);
            break;
        case 'Y':
            renderCurrency(h, field);
            break;
        case 'O':
            printFixed(h->TextBuffer, GetInvertedDouble(h, field), kDoubleWidth, kOrderedDecimals);
            break;
        case 'B':
            if (f.Length == 8) {
                printFixed(h->TextBuffer, GetDouble(h, field), kDoubleWidth, f.Decimals);
            } else {
                renderMemo(h, field, f);
            }
            break;
        case 'M':
        case 'G':
        case 'W':
            renderMemo(h, field, f);
            break;
        case 'N':
        case 'F':
            renderNumber(h, field, f);
            break;
        default:
            h->TextBuffer[0] = 0;
            break;
    }
    return h->TextBuffer;
}

const char* GetString(DbfBase* h, int field) {
    const std::span<const u8> stored = fieldBytes(h, field);
    copyStored(h, stored.first(std::min<std::size_t>(stored.size(), kTextBufferSize - 1)));
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
