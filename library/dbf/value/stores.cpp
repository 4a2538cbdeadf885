// Writing field values: the dispatch by type and the writers of characters and logicals.
#include <algorithm>
#include <cstring>

#include "dbf/table/table.h"
#include "dbf/value/value.h"
#include "internal/ascii.h"
#include "internal/convert.h"

namespace mira {

namespace {

/// Truncated toward zero; 0 for what 32 bits cannot hold.
i32 toInteger(double number) {
    return number > 2147483647.0 || number < -2147483648.0 ? 0 : clampToI32(number);
}

void setText(DbfBase* h, int field, char type, const char* text) {
    switch (type) {
        case 'D':
            SetDateS(h, field, text);
            break;
        case 'T':
        case '@':
            SetDateTimeS(h, field, text);
            break;
        case 'L':
            SetLogical(h, field, text[0]);
            break;
        default:
            SetString(h, field, text);
    }
}

}  // namespace

void storeField(DbfBase* h, int field, const char* text, double number) {
    const char type = h->Fields[field].Type;
    switch (type) {
        case 'C':
        case 'Q':
        case 'V':
        case 'D':
        case 'T':
        case '@':
        case 'L':
            if (text != nullptr) setText(h, field, type, text);
            break;
        case 'F':
        case 'N':
            SetFloat(h, field, number);
            break;
        case 'I':
        case '+':
            SetInt(h, field, static_cast<u32>(toInteger(number)));
            break;
        case 'O':
            SetInvertedDouble(h, field, number);
            break;
        case 'Y':
            SetCurrency(h, field, number);
            break;
        case 'B':
            SetDouble(h, field, number);
            break;
        default:
            break;
    }
}

void SetString(DbfBase* h, int field, const char* text) {
    const std::span<u8> bytes = fieldBytes(h, field);
    if (text == nullptr || bytes.empty()) return;
    // The text may lie in the record buffer itself.
    std::memmove(bytes.data(), text, strnlen(text, bytes.size()));
}

char SetLogical(DbfBase* h, int field, char letter) {
    const std::span<u8> bytes = fieldBytes(h, field);
    if (bytes.empty()) return 0;
    const u8 lower = lowerAscii(letter);
    const bool known = lower == 't' || lower == 'f' || lower == 'y' || lower == 'n';
    bytes[0] = static_cast<u8>(known ? lower - 'a' + 'A' : ' ');
    return static_cast<char>(bytes[0]);
}

char SetBool(DbfBase* h, int field, u32 flag) {
    return SetLogical(h, field, (flag & 0xFF) != 0 ? 'T' : 'F');
}

}  // namespace mira
