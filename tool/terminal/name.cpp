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

/// Replaces the words before which stands one of these characters; 0 for the beginning.
std::string renamed(std::string_view text, std::string_view before) {
    const std::string& name = programName();
    if (name == kUsual) return std::string(text);
    std::string result;
    char last = 0;
    while (!text.empty()) {
        const std::size_t end = kUsual.size();
        const bool is = before.find(last) != std::string_view::npos && text.starts_with(kUsual) &&
                        (text.size() == end || !isWordLetter(text[end]));
        if (is) {
            result += name;
        } else {
            result += text.front();
        }
        last = text[is ? end - 1 : 0];
        text.remove_prefix(is ? end : 1);
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
    return renamed(text, kBefore);
}

std::string withOwnCommands(std::string_view sentence) { return renamed(sentence, "`"); }

}  // namespace mira::tool
