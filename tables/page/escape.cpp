#include "tables/page/escape.h"

#include <algorithm>

#include "tables/page/utf8.h"

namespace mira::tables {
namespace {

bool isControl(char32_t c) { return c < 0x20 || (c >= 0x7F && c <= 0x9F); }
/// Marks of two-way texts, and line ends that are no control characters.
bool isHidden(char32_t c) {
    return c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x2028 && c <= 0x202E) ||
           (c >= 0x2066 && c <= 0x2069);
}

/// The last digits of a number in base 16.
void putHex(std::string& out, char32_t number, int digits) {
    while (digits-- > 0) out += "0123456789ABCDEF"[number >> (4 * digits) & 15];
}

void putByte(std::string& out, unsigned char byte) {
    out += "\\x";
    putHex(out, byte, 2);
}

/// Length of the printable ASCII at the start of a text.
std::size_t printableRun(std::string_view text) {
    const auto end =
        std::find_if_not(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
    return static_cast<std::size_t>(end - text.begin());
}

}  // namespace

bool needsEscape(std::string_view text) {
    while (true) {
        text.remove_prefix(printableRun(text));
        if (text.empty()) return false;
        const Utf8Step step = stepUtf8(text);
        if (!step.valid || isControl(step.letter) || isHidden(step.letter)) return true;
        text.remove_prefix(step.length);
    }
}

void putEscaped(std::string& out, std::string_view text) {
    while (!text.empty()) {
        const std::size_t run = printableRun(text);
        out += text.substr(0, run);
        text.remove_prefix(run);
        if (text.empty()) return;
        const Utf8Step step = stepUtf8(text);
        if (!step.valid) {
            for (const char c : text.substr(0, step.length))
                putByte(out, static_cast<unsigned char>(c));
        } else if (isControl(step.letter)) {
            putByte(out, static_cast<unsigned char>(step.letter));
        } else if (isHidden(step.letter)) {
            out += "\\u";
            putHex(out, step.letter, 4);
        } else {
            out += text.substr(0, step.length);
        }
        text.remove_prefix(step.length);
    }
}

std::string escaped(std::string_view text) {
    std::string out;
    putEscaped(out, text);
    return out;
}

}  // namespace mira::tables
