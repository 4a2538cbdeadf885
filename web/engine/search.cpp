#include "search.h"

#include <cstring>

#include "tables/page/text.h"
#include "tables/page/utf8.h"
#include "tables/value/plain.h"

namespace mira::page {
namespace {

using namespace tables;

constexpr std::size_t kTable = 0x10000;

char lowered(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

char raised(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; }

/// Appends the letters of a text, each as fold gives it.
template <typename Fold>
void putLetters(std::string_view utf8, std::u32string& letters, Fold fold) {
    while (!utf8.empty()) {
        const Utf8Step step = stepUtf8(utf8);
        letters += fold(step.letter);
        utf8.remove_prefix(step.length);
    }
}

}  // namespace

Searcher::Searcher(Table& table, std::string_view text) : table_(table), cells_(table) {
    putLetters(text, letters_, foldLetter);
    if (!isAscii(text)) {
        folded_.resize(kTable);
        return;
    }
    for (const char c : text) ascii_ += lowered(c);
}

bool Searcher::holdsAscii(std::string_view text) const {
    if (text.size() < ascii_.size()) return false;
    const char low = ascii_[0];
    const char high = raised(low);
    const std::size_t last = text.size() - ascii_.size();
    for (std::size_t at = 0; at <= last; ++at) {
        if (text[at] != low && text[at] != high) continue;
        std::size_t same = 1;
        while (same < ascii_.size() && lowered(text[at + same]) == ascii_[same]) ++same;
        if (same == ascii_.size()) return true;
    }
    return false;
}

bool Searcher::holds(std::string_view utf8) {
    // Some letters beyond ASCII fold to one of it, such as the sign of Kelvin; they are no match
    // for what is typed on a keyboard without them.
    if (!ascii_.empty()) return holdsAscii(utf8);
    if (asciiRun(utf8) == utf8.size()) return false;
    text_.clear();
    putLetters(utf8, text_, [this](char32_t letter) {
        if (letter >= kTable) return foldLetter(letter);
        char32_t& folded = folded_[letter];
        if (folded == 0) folded = foldLetter(letter);
        return folded;
    });
    return text_.find(letters_) != std::u32string::npos;
}

bool Searcher::find(u32 record) {
    cells_.record = record;
    Value value;
    for (const Column& column : table_.columns) {
        readCell(cells_, column, value);
        switch (value.kind) {
            case ValueKind::Null:
            case ValueKind::Blank:
                break;
            case ValueKind::Text:
            case ValueKind::Digits:
            case ValueKind::Currency:
            case ValueKind::Date:
            case ValueKind::Moment:
                if (holds(value.text)) return true;
                break;
            case ValueKind::Integer:
            case ValueKind::Real:
            case ValueKind::Logical:
                plain_.clear();
                putPlain(plain_, value);
                if (holds(plain_)) return true;
                break;
            case ValueKind::Bytes:
                break;  // shown as a picture or a size
        }
    }
    return false;
}

}  // namespace mira::page
