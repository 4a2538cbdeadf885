// UTF-8 texts: letter case, lists, names. Bytes that are no UTF-8 stand for themselves.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace mira::tables {

/// The parts, texts, characters and whole numbers, as one text.
template <typename... Part>
std::string textOf(const Part&... parts) {
    std::string text;
    const auto add = [&](const auto& part) {
        if constexpr (std::is_integral_v<std::decay_t<decltype(part)>> &&
                      !std::is_same_v<std::decay_t<decltype(part)>, char>) {
            text += std::to_string(part);
        } else {
            text += part;
        }
    };
    (add(parts), ...);
    return text;
}

/// "1 record", "2 records".
inline std::string counted(unsigned long long count, std::string_view noun) {
    return textOf(count, ' ', noun, count == 1 ? "" : "s");
}

/// The text in the form in which texts that differ only in letter case are the same.
std::string foldCase(std::string_view utf8);
inline bool sameText(std::string_view a, std::string_view b) { return foldCase(a) == foldCase(b); }
/// All letters in upper or lower case, one for one; bytes that are no UTF-8 stay.
std::string upperText(std::string_view utf8);
std::string lowerText(std::string_view utf8);
/// The letter that stands for a letter of either case when a text is compared letter by letter.
char32_t foldLetter(char32_t letter);
/// ASCII letters in upper case, whatever the locale.
std::string upperAscii(std::string_view text);

bool isAscii(std::string_view text);
bool isUtf8(std::string_view text);
inline bool isDigit(char c) { return c >= '0' && c <= '9'; }
inline bool areDigits(std::string_view text) {
    return std::all_of(text.begin(), text.end(), isDigit);
}
/// What names in expressions are made of: ASCII letters, digits, "_", all bytes above 7F.
bool isWordByte(char c);

/// The parts of a list "A,B,C", blanks around them taken away; empty parts are left out.
std::vector<std::string> splitList(std::string_view list);
/// "A, B, C"
std::string joined(const std::vector<std::string>& parts, std::string_view between = ", ");
std::string_view trimmed(std::string_view text, std::string_view of = " ");
/// Takes a character off the front of a text when it is one of these.
inline bool takeOneOf(std::string_view* text, std::string_view letters) {
    if (text->empty() || letters.find(text->front()) == std::string_view::npos) return false;
    text->remove_prefix(1);
    return true;
}

/// The name nearest to a mistyped one; empty when none is near.
std::string nearestName(std::string_view name, const std::vector<std::string>& names);
/// The wanted name when it is free, else the first that is with "_2", "_3" and so on after it.
template <typename IsFree>
std::string freeName(const std::string& wanted, IsFree isFree) {
    std::string name = wanted;
    for (int n = 2; !isFree(name); ++n) name = textOf(wanted, '_', n);
    return name;
}

}  // namespace mira::tables
