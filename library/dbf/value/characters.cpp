// Characters and logicals: what is stored, and how it gets there.
#include <cstring>

#include "dbf/table/table.h"
#include "dbf/value/value.h"
#include "internal/ascii.h"

namespace mira {
namespace {

enum TrimModes { kTrimEnd = 1, kTrimStart = 2, kTrimBoth = 3 };

}  // namespace

const char* GetString(DbfBase* h, int field) {
    return tableField(h, field) != nullptr ? renderText(h, field) : renderNothing(h, field);
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
