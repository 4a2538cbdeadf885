#include "tables/page/json.h"

#include <algorithm>

#include "tables/page/escape.h"
#include "tables/page/utf8.h"

namespace mira::tables {
namespace {

/// The length of a letter that ends lines for some readers at the start of a text; 0 where there is
/// another one.
std::size_t lineEndLength(std::string_view text) {
    for (const std::string_view end : {"\xC2\x85", "\xE2\x80\xA8", "\xE2\x80\xA9"}) {
        if (text.starts_with(end)) return end.size();
    }
    return 0;
}

void putEscape(std::string& out, char32_t letter) {
    constexpr std::string_view kNamed = "\"\\\b\f\n\r\t";
    constexpr std::string_view kNames = "\"\\bfnrt";
    const std::size_t named =
        letter < 0x80 ? kNamed.find(static_cast<char>(letter)) : std::string_view::npos;
    if (named != std::string_view::npos) {
        out += '\\';
        out += kNames[named];
    } else {
        out += "\\u";
        for (int shift = 12; shift >= 0; shift -= 4)
            out += "0123456789abcdef"[letter >> shift & 15];
    }
}

/// The text with everything escaped that a terminal must not see.
void putForTerminal(std::string& out, std::string_view text) {
    while (!text.empty()) {
        const Utf8Step step = stepUtf8(text);
        const std::string_view letter = text.substr(0, step.length);
        if (needsEscape(letter) || (step.letter < 0x80 && kJsonSpecial[step.letter])) {
            putEscape(out, step.letter);
        } else {
            out += letter;
        }
        text.remove_prefix(step.length);
    }
}

}  // namespace

void putJsonString(std::string& out, std::string_view utf8, bool terminal) {
    out += '"';
    if (terminal) {
        putForTerminal(out, utf8);
        utf8 = {};
    }
    while (!utf8.empty()) {
        const auto unusual = std::find_if(utf8.begin(), utf8.end(), isJsonUnusual);
        const auto run = static_cast<std::size_t>(unusual - utf8.begin());
        out += utf8.substr(0, run);
        utf8.remove_prefix(run);
        if (utf8.empty()) break;
        const std::size_t lineEnd = lineEndLength(utf8);
        if (lineEnd != 0 || kJsonSpecial[static_cast<unsigned char>(utf8.front())]) {
            putEscape(out, stepUtf8(utf8).letter);
        } else {
            out += utf8.front();
        }
        utf8.remove_prefix(std::max<std::size_t>(lineEnd, 1));
    }
    out += '"';
}

}  // namespace mira::tables
