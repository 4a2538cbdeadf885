#include "tables/page/text.h"

#include <utf8proc.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <numeric>

#include "tables/page/utf8.h"

namespace mira::tables {
namespace {

std::string foldAscii(std::string_view text) {
    std::string folded(text);
    for (char& c : folded) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return folded;
}

/// Every letter replaced by what change makes of it.
template <typename Change>
std::string eachLetter(std::string_view utf8, Change change) {
    std::string changed;
    changed.reserve(utf8.size());
    while (!utf8.empty()) {
        const Utf8Step step = stepUtf8(utf8);
        char letter[4];
        if (step.valid) {
            changed.append(letter, putUtf8(letter, change(step.letter)));
        } else {
            changed += utf8.substr(0, step.length);
        }
        utf8.remove_prefix(step.length);
    }
    return changed;
}

/// The sharp s stays: its capital is hardly ever meant.
char32_t upperLetter(char32_t letter) {
    if (letter == U'ß') return letter;
    return static_cast<char32_t>(utf8proc_toupper(static_cast<utf8proc_int32_t>(letter)));
}

char32_t lowerLetter(char32_t letter) {
    return static_cast<char32_t>(utf8proc_tolower(static_cast<utf8proc_int32_t>(letter)));
}

/// Letters to change, to leave out or to put in until the texts are the same.
std::size_t editDistance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t before = row[0]++;
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t changed = before + (a[i] != b[j] ? 1 : 0);
            before = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, before + 1});
        }
    }
    return row.back();
}

}  // namespace

std::string foldCase(std::string_view utf8) {
    if (isAscii(utf8)) return foldAscii(utf8);
    utf8proc_uint8_t* folded = nullptr;
    const utf8proc_ssize_t length = utf8proc_map(
        reinterpret_cast<const utf8proc_uint8_t*>(utf8.data()),
        static_cast<utf8proc_ssize_t>(utf8.size()), &folded,
        static_cast<utf8proc_option_t>(UTF8PROC_CASEFOLD | UTF8PROC_STABLE | UTF8PROC_COMPOSE));
    const std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(folded, std::free);
    if (length < 0) return foldAscii(utf8);
    return {reinterpret_cast<const char*>(folded), static_cast<std::size_t>(length)};
}

std::string upperText(std::string_view utf8) { return eachLetter(utf8, upperLetter); }

std::string lowerText(std::string_view utf8) { return eachLetter(utf8, lowerLetter); }

// By way of the capital, so that the two small sigmas are one.
char32_t foldLetter(char32_t letter) {
    if (letter < 0x80) return letter >= 'A' && letter <= 'Z' ? letter - 'A' + 'a' : letter;
    return lowerLetter(upperLetter(letter));
}

std::string upperAscii(std::string_view text) {
    std::string upper(text);
    for (char& c : upper) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return upper;
}

bool isAscii(std::string_view text) { return asciiRun(text) == text.size(); }

bool isUtf8(std::string_view text) { return validRun(text) == text.size(); }

bool isWordByte(char c) {
    return isDigit(c) || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' ||
           (c & 0x80) != 0;
}

std::string_view trimmed(std::string_view text, std::string_view of) {
    const std::size_t first = text.find_first_not_of(of);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(of) - first + 1);
}

std::string joined(const std::vector<std::string>& parts, std::string_view between) {
    std::string list;
    for (const std::string& part : parts) {
        if (&part != parts.data()) list += between;
        list += part;
    }
    return list;
}

std::vector<std::string> splitList(std::string_view list) {
    std::vector<std::string> parts;
    while (!list.empty()) {
        const std::size_t comma = std::min(list.find(','), list.size());
        const std::string_view part = trimmed(list.substr(0, comma));
        if (!part.empty()) parts.emplace_back(part);
        list.remove_prefix(std::min(comma + 1, list.size()));
    }
    return parts;
}

std::string nearestName(std::string_view name, const std::vector<std::string>& names) {
    const std::string wanted = foldCase(name);
    std::size_t least = std::max<std::size_t>(wanted.size() / 2, 1) + 1;
    std::string nearest;
    for (const std::string& candidate : names) {
        const std::size_t distance = editDistance(wanted, foldCase(candidate));
        if (distance >= least) continue;
        least = distance;
        nearest = candidate;
    }
    return nearest;
}

}  // namespace mira::tables
