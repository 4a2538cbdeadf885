// The writers of characters and logicals.
#include <cstring>

#include "dbf/table/table.h"
#include "internal/ascii.h"

namespace mira {

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
