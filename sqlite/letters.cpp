#include "letters.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "guard.h"
#include "tables/page/text.h"
#include "tables/page/utf8.h"

namespace mira::sql {
namespace {

/// Takes a letter off the front of a text that is not empty. Bytes that are no UTF-8 are letters
/// past all others, each equal to itself.
char32_t takeLetter(std::string_view* text) {
    constexpr char32_t kPastLetters = 0x110000;
    const auto first = static_cast<unsigned char>(text->front());
    if (first < 0x80) {
        text->remove_prefix(1);
        return first;
    }
    const tables::Utf8Step step = tables::stepUtf8(*text);
    text->remove_prefix(step.valid ? step.length : 1);
    return step.valid ? step.letter : kPastLetters + first;
}

constexpr char32_t kNoEscape = 0xFFFFFFFF;

bool isAscii(char c) { return static_cast<unsigned char>(c) < 0x80; }
char lowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; }

char32_t folded(char32_t letter) {
    return letter < 0x80 ? static_cast<unsigned char>(lowerAscii(static_cast<char>(letter)))
                         : tables::foldLetter(letter);
}

char32_t takeFolded(std::string_view* text) { return folded(takeLetter(text)); }

/// What LIKE looks for next.
struct Piece {
    enum class Kind { Letter, AnyLetter, AnyRun, End, Nothing } kind;
    char32_t letter = 0;  ///< folded
};

Piece takePiece(std::string_view* pattern, char32_t escape) {
    using Kind = Piece::Kind;
    if (pattern->empty()) return {Kind::End};
    const char32_t letter = takeLetter(pattern);
    if (letter == escape) {
        // Behind it every letter means itself; the end of the pattern means nothing there is.
        return pattern->empty() ? Piece{Kind::Nothing} : Piece{Kind::Letter, takeFolded(pattern)};
    }
    if (letter == '%') return {Kind::AnyRun};
    if (letter == '_') return {Kind::AnyLetter};
    return {Kind::Letter, folded(letter)};
}

/// Takes the letter of a piece off a text that is not empty; false when it is another.
bool takeMatch(const Piece& piece, std::string_view* text) {
    if (piece.kind == Piece::Kind::End || piece.kind == Piece::Kind::Nothing) return false;
    const char32_t letter = takeFolded(text);
    return piece.kind == Piece::Kind::AnyLetter || piece.letter == letter;
}

/// Takes off both what is the same and plain in them, ASCII letters that stand for themselves.
void takePlain(std::string_view* pattern, std::string_view* text, char32_t escape) {
    const std::size_t most = std::min(pattern->size(), text->size());
    std::size_t same = 0;
    for (; same < most; ++same) {
        const char c = (*pattern)[same];
        const char given = (*text)[same];
        const bool plain = c != '%' && c != '_' && isAscii(c) && isAscii(given) &&
                           static_cast<unsigned char>(c) != escape;
        if (!plain || lowerAscii(c) != lowerAscii(given)) break;
    }
    pattern->remove_prefix(same);
    text->remove_prefix(same);
}

/// The ASCII letter, folded, that a pattern begins with; 0 when it begins otherwise.
char firstLetter(std::string_view pattern, char32_t escape) {
    const Piece first = takePiece(&pattern, escape);
    const bool plain = first.kind == Piece::Kind::Letter && first.letter < 0x80;
    return plain ? static_cast<char>(first.letter) : '\0';
}

/// A text from the first place on where such a pattern may match.
std::string_view skipTo(char first, std::string_view text) {
    if (first == 0) return text;
    const char* at = text.data();
    const char* const end = at + text.size();
    while (at != end && isAscii(*at) && lowerAscii(*at) != first) ++at;
    return {at, static_cast<std::size_t>(end - at)};
}

/// Whether a text is what LIKE looks for. Only the last "%" is gone back to: what those before it
/// have matched need never be looked at again.
bool isLike(std::string_view pattern, std::string_view text, char32_t escape) {
    std::string_view afterRun;  // the pattern behind the last "%"
    char first = 0;             // its first letter
    std::string_view from;      // where in the text it was tried last
    while (true) {
        takePlain(&pattern, &text, escape);
        const Piece piece = takePiece(&pattern, escape);
        if (piece.kind == Piece::Kind::AnyRun) {
            if (pattern.empty()) return true;
            afterRun = pattern;
            first = firstLetter(afterRun, escape);
            text = from = skipTo(first, text);
            continue;
        }
        if (text.empty()) return piece.kind == Piece::Kind::End;
        if (takeMatch(piece, &text)) continue;
        if (afterRun.empty()) return false;
        takeLetter(&from);
        text = from = skipTo(first, from);
        pattern = afterRun;
    }
}

std::string_view textOf(sqlite3_value* value) {
    const unsigned char* const text = sqlite3_value_text(value);
    if (text == nullptr) return {};
    return {reinterpret_cast<const char*>(text),
            static_cast<std::size_t>(sqlite3_value_bytes(value))};
}

bool isNull(sqlite3_value* value) { return sqlite3_value_type(value) == SQLITE_NULL; }

/// X LIKE Y is like(Y, X), with an ESCAPE like(Y, X, Z).
void like(sqlite3_context* context, int count, sqlite3_value** values) {
    for (int i = 0; i < count; ++i) {
        if (isNull(values[i])) return;
    }
    const std::string_view pattern = textOf(values[0]);
    char32_t escape = kNoEscape;
    if (count > 2) {
        std::string_view text = textOf(values[2]);
        if (!text.empty()) escape = takeLetter(&text);
        if (escape == kNoEscape || !text.empty()) {
            return sqlite3_result_error(context, "ESCAPE expression must be a single character",
                                        -1);
        }
    }
    sqlite3_result_int(context, isLike(pattern, textOf(values[1]), escape) ? 1 : 0);
}

constexpr char kFirst[] = {'A', 'a'};  // of the letters that lower and upper change

/// lower or upper.
template <bool upper>
std::string changed(std::string_view text) {
    if (!tables::isAscii(text)) return upper ? tables::upperText(text) : tables::lowerText(text);
    std::string letters(text);
    for (char& c : letters) {
        if (c >= kFirst[upper] && c < kFirst[upper] + 26) c = static_cast<char>(c ^ 0x20);
    }
    return letters;
}

template <bool upper>
void changeCase(sqlite3_context* context, int /*count*/, sqlite3_value** values) {
    if (isNull(values[0])) return;
    char* message = nullptr;
    const int result = guarded(&message, [&] {
        const std::string text = changed<upper>(textOf(values[0]));
        sqlite3_result_text64(context, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
        return SQLITE_OK;
    });
    if (result != SQLITE_OK) sqlite3_result_error_code(context, result);
    sqlite3_free(message);
}

int compareFolded(void* /*nothing*/, int size, const void* a, int otherSize, const void* b) {
    std::string_view text(static_cast<const char*>(a), static_cast<std::size_t>(size));
    std::string_view other(static_cast<const char*>(b), static_cast<std::size_t>(otherSize));
    while (!text.empty() && !other.empty()) {
        const char32_t x = takeFolded(&text);
        const char32_t y = takeFolded(&other);
        if (x != y) return x < y ? -1 : 1;
    }
    return text.empty() ? (other.empty() ? 0 : -1) : 1;
}

}  // namespace

int registerLetters(sqlite3* connection) {
    constexpr int kFlags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
    const struct {
        const char* name;
        int arguments;
        void (*function)(sqlite3_context*, int, sqlite3_value**);
    } functions[] = {{"like", 2, like},
                     {"like", 3, like},
                     {"lower", 1, changeCase<false>},
                     {"upper", 1, changeCase<true>}};
    for (const auto& f : functions) {
        const int result = sqlite3_create_function(connection, f.name, f.arguments, kFlags, nullptr,
                                                   f.function, nullptr, nullptr);
        if (result != SQLITE_OK) return result;
    }
    return sqlite3_create_collation(connection, "NOCASE", SQLITE_UTF8, nullptr, compareFolded);
}

}  // namespace mira::sql
