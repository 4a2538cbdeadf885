#include "terminal/name.h"

#include <algorithm>

#include "tables/page/text.h"

namespace mira::tool {
namespace {

constexpr std::string_view kUsual = "mira";

std::string& currentName() {
    static std::string name(kUsual);
    return name;
}

bool isWordLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || tables::isDigit(c);
}

/// Replaces the words before which stands one of these characters (0 for the beginning) and behind
/// which isEnd finds no more of the word.
std::string renamed(std::string_view text, std::string_view before, bool (*isEnd)(char)) {
    const std::string& name = programName();
    if (name == kUsual) return std::string(text);
    std::string result;
    for (char last = 0; !text.empty();) {
        const bool is = before.find(last) != std::string_view::npos && text.starts_with(kUsual) &&
                        isEnd(text.size() == kUsual.size() ? 0 : text[kUsual.size()]);
        const std::size_t length = is ? kUsual.size() : 1;
        result += is ? std::string_view(name) : text.substr(0, 1);
        last = text[length - 1];
        text.remove_prefix(length);
    }
    return result;
}

}  // namespace

void setProgramName(const char* called) {
    std::string_view name = called != nullptr ? called : "";
    name.remove_prefix(name.rfind('/') + 1);  // npos + 1 is 0
    const bool plain = std::all_of(name.begin(), name.end(), [](char c) {
        return isWordLetter(c) || std::string_view("-_.+").find(c) != std::string_view::npos;
    });
    if (plain && !name.empty()) currentName() = name;
}

const std::string& programName() { return currentName(); }

std::string inOwnName(std::string_view text) {
    constexpr std::string_view kBefore("\0 \n`_/(\"", 8);
    return renamed(text, kBefore, [](char c) { return !isWordLetter(c); });
}

std::string withOwnCommands(std::string_view sentence) {
    return renamed(sentence, "`", [](char c) { return c == ' '; });
}

}  // namespace mira::tool
