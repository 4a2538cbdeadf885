// Code pages as converters. A single-byte page is a table of 256, filled once by the C library; the
// C library converts the rest, but for UTF-8, which is only checked.
#include "table/codepage.h"

#include <iconv.h>
#include <utf8proc.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "table/pagenames.h"
#include "table/utf8.h"

namespace mira::tool {
namespace {

// Pages that the C library lacks, from 80 on. 620 and 895 go on as page 437 does.
constexpr char16_t kMazovia[] = {
    0xC7,  0xFC,  0xE9,  0xE2,  0xE4,  0xE0,   0x105, 0xE7,  0xEA,  0xEB,  0xE8, 0xEF,
    0xEE,  0x107, 0xC4,  0x104, 0x118, 0x119,  0x142, 0xF4,  0xF6,  0x106, 0xFB, 0xF9,
    0x15A, 0xD6,  0xDC,  0xA2,  0x141, 0xA5,   0x15B, 0x192, 0x179, 0x17B, 0xF3, 0xD3,
    0x144, 0x143, 0x17A, 0x17C, 0xBF,  0x2310, 0xAC,  0xBD,  0xBC,  0xA1,  0xAB, 0xBB};
constexpr char16_t kKamenicky[] = {
    0x10C, 0xFC,  0xE9,  0x10F, 0xE4,  0x10E, 0x164, 0x10D, 0x11B, 0x11A, 0x139, 0xCD,
    0x13E, 0x13A, 0xC4,  0xC1,  0xC9,  0x17E, 0x17D, 0xF4,  0xF6,  0xD3,  0x16F, 0xDA,
    0xFD,  0xD6,  0xDC,  0x160, 0x13D, 0xDD,  0x158, 0x165, 0xE1,  0xED,  0xF3,  0xFA,
    0x148, 0x147, 0x16E, 0xD4,  0x161, 0x159, 0x155, 0x154, 0xBC,  0xA7,  0xAB,  0xBB};
constexpr char16_t kMacGreek[] = {
    0xC4,   0xB9,   0xB2,   0xC9,   0xB3,   0xD6,  0xDC,  0x385,  0xE0,   0xE2,   0xE4,   0x384,
    0xA8,   0xE7,   0xE9,   0xE8,   0xEA,   0xEB,  0xA3,  0x2122, 0xEE,   0xEF,   0x2022, 0xBD,
    0x2030, 0xF4,   0xF6,   0xA6,   0x20AC, 0xF9,  0xFB,  0xFC,   0x2020, 0x393,  0x394,  0x398,
    0x39B,  0x39E,  0x3A0,  0xDF,   0xAE,   0xA9,  0x3A3, 0x3AA,  0xA7,   0x2260, 0xB0,   0xB7,
    0x391,  0xB1,   0x2264, 0x2265, 0xA5,   0x392, 0x395, 0x396,  0x397,  0x399,  0x39A,  0x39C,
    0x3A6,  0x3AB,  0x3A8,  0x3A9,  0x3AC,  0x39D, 0xAC,  0x39F,  0x3A1,  0x2248, 0x3A4,  0xAB,
    0xBB,   0x2026, 0xA0,   0x3A5,  0x3A7,  0x386, 0x388, 0x153,  0x2013, 0x2015, 0x201C, 0x201D,
    0x2018, 0x2019, 0xF7,   0x389,  0x38A,  0x38C, 0x38E, 0x3AD,  0x3AE,  0x3AF,  0x3CC,  0x38F,
    0x3CD,  0x3B1,  0x3B2,  0x3C8,  0x3B4,  0x3B5, 0x3C6, 0x3B3,  0x3B7,  0x3B9,  0x3BE,  0x3BA,
    0x3BB,  0x3BC,  0x3BD,  0x3BF,  0x3C0,  0x3CE, 0x3C1, 0x3C3,  0x3C4,  0x3B8,  0x3C9,  0x3C2,
    0x3C7,  0x3C5,  0x3B6,  0x3CA,  0x3CB,  0x390, 0x3B0, 0xAD};

struct OwnPage {
    const char* name;
    const char* base;  ///< the page that has the bytes left out
    std::span<const char16_t> upper;
};
constexpr OwnPage kOwnPages[] = {
    {"620", "CP437", kMazovia}, {"895", "CP437", kKamenicky}, {"10006", "ISO-8859-1", kMacGreek}};

constexpr std::size_t kRoom = 1024;  // bytes that are converted before they join the text

enum class Stop {
    End,      ///< all of the text is converted
    Invalid,  ///< the rest begins with what cannot be converted
    Cut       ///< the text ends inside a character
};

Converter openConverter(const char* to, const char* from) {
    iconv_t converter = iconv_open(to, from);
    const bool failed = reinterpret_cast<std::intptr_t>(converter) == -1;
    return Converter(failed ? nullptr : converter);
}

/// Appends the text converted up to where it stops, and takes that part off it. The converter
/// starts fresh, and is flushed at the end: some hold a letter back that may join the next.
Stop convert(const Converter& converter, std::string_view* text, std::string& out) {
    iconv(converter.get(), nullptr, nullptr, nullptr, nullptr);
    char* from = const_cast<char*>(text->data());  // iconv only reads there
    std::size_t left = text->size();
    char room[kRoom];
    Stop stop = Stop::End;
    for (bool flushing = false;;) {
        char* to = room;
        std::size_t free = sizeof room;
        const bool failed = iconv(converter.get(), flushing ? nullptr : &from, &left, &to, &free) ==
                            static_cast<std::size_t>(-1);
        const int error = failed ? errno : 0;
        out.append(room, sizeof room - free);
        if (error == E2BIG) continue;
        if (flushing) break;
        if (error != 0) stop = error == EINVAL ? Stop::Cut : Stop::Invalid;
        flushing = true;
    }
    text->remove_prefix(static_cast<std::size_t>(from - text->data()));
    return stop;
}

// ---------------------------------------------------------------------------------------------
// Making a page
// ---------------------------------------------------------------------------------------------

const OwnPage* ownPage(std::string_view name) {
    for (const OwnPage& own : kOwnPages) {
        if (name == own.name) return &own;
    }
    return nullptr;
}

Letter letterOf(std::string_view utf8, bool missing) {
    Letter letter{};
    letter.length = static_cast<u8>(utf8.copy(letter.text, sizeof letter.text));
    letter.missing = missing ? 1 : 0;
    return letter;
}

Letter letterOf(char16_t letter) {
    char text[4];
    return letterOf({text, putUtf8(text, letter)}, false);
}

/// Fills the table by converting every byte alone. False when some bytes only begin a character:
/// a multi-byte page.
bool fillLetters(CodePage* page) {
    for (unsigned byte = 0; byte < page->letters.size(); ++byte) {
        const char c = static_cast<char>(byte);
        std::string_view text(&c, 1);
        std::string utf8;
        const Stop stop = convert(page->decoder, &text, utf8);
        if (stop == Stop::Cut || utf8.size() > sizeof(Letter::text)) return false;
        const bool missing = stop == Stop::Invalid || utf8.empty();
        page->letters[byte] = letterOf(missing ? kReplacementText : utf8, missing);
    }
    return true;
}

bool isPlain(char c) {
    return c == ' ' || (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

/// True when the bytes below 80 stand for one character each, and letters, digits and the blank
/// for themselves: what tables need. *clean: all of them for themselves.
bool checkAscii(const CodePage& page, bool* clean) {
    *clean = true;
    for (unsigned byte = 0; byte < 0x80; ++byte) {
        const char c = static_cast<char>(byte);
        std::string_view text(&c, 1);
        std::string utf8;
        if (convert(page.decoder, &text, utf8) != Stop::End || utf8.empty()) return false;
        if (utf8[0] == c && utf8.size() == 1) continue;
        *clean = false;
        if (isPlain(c)) return false;
    }
    return true;
}

/// The character of a byte, 0 when it has none or more than one.
char32_t singleLetter(const Letter& letter) {
    const Utf8Step step = stepUtf8({letter.text, letter.length});
    return letter.missing == 0 && step.length == letter.length ? step.letter : 0;
}

void addByte(CodePage* page, unsigned byte) {
    const char32_t letter = singleLetter(page->letters[byte]);
    if (letter != 0 || byte == 0) page->bytes.emplace_back(letter, static_cast<u8>(byte));
}

/// The byte of a character, which the lowest of several is; false when the page lacks it.
bool findByte(const CodePage& page, char32_t letter, u8* byte) {
    const auto at =
        std::lower_bound(page.bytes.begin(), page.bytes.end(), std::pair<char32_t, u8>(letter, 0));
    if (at == page.bytes.end() || at->first != letter) return false;
    *byte = at->second;
    return true;
}

char32_t upperLetter(char32_t letter) {
    return static_cast<char32_t>(utf8proc_toupper(static_cast<utf8proc_int32_t>(letter)));
}

/// What follows from the letters of a single-byte page.
void finishTable(CodePage* page) {
    for (unsigned byte = 0; byte < 256; ++byte) {
        addByte(page, byte);
        const bool same = page->letters[byte].length == 1 &&
                          page->letters[byte].text[0] == static_cast<char>(byte);
        if (byte < 0x80 && !same) page->asciiClean = false;
    }
    std::sort(page->bytes.begin(), page->bytes.end());
    for (unsigned byte = 0; byte < 256; ++byte) {
        page->upper[byte] = static_cast<u8>(byte);
        const char32_t letter = singleLetter(page->letters[byte]);
        if (letter != 0) findByte(*page, upperLetter(letter), &page->upper[byte]);
    }
}

/// Takes the C library's converters, as a table where that is possible.
bool loadPage(CodePage* page, const char* name) {
    page->decoder = openConverter("UTF-8", name);
    if (!page->decoder) return false;
    if (fillLetters(page)) {
        page->kind = CodePage::Kind::SingleByte;
        page->decoder.reset();
        return true;
    }
    page->kind = CodePage::Kind::MultiByte;
    page->encoder = openConverter(name, "UTF-8");
    return page->encoder && checkAscii(*page, &page->asciiClean);
}

// ---------------------------------------------------------------------------------------------
// Bytes to UTF-8
// ---------------------------------------------------------------------------------------------

std::size_t byTable(const CodePage& page, std::string_view bytes, std::string& out) {
    char room[kRoom];
    std::size_t used = 0;
    std::size_t missing = 0;
    for (const char byte : bytes) {
        if (used > sizeof room - sizeof(Letter)) {
            out.append(room, used);
            used = 0;
        }
        const Letter& letter = page.letters[static_cast<u8>(byte)];
        std::memcpy(room + used, &letter, sizeof letter);  // the next one covers what is too much
        used += letter.length;
        missing += letter.missing;
    }
    out.append(room, used);
    return missing;
}

std::size_t byConverter(const CodePage& page, std::string_view bytes, std::string& out) {
    std::size_t missing = 0;
    for (Stop stop = convert(page.decoder, &bytes, out); stop != Stop::End;) {
        out += kReplacementText;
        ++missing;
        if (stop == Stop::Cut || bytes.size() <= 1) break;
        bytes.remove_prefix(1);
        stop = convert(page.decoder, &bytes, out);
    }
    return missing;
}

std::size_t byCheck(std::string_view bytes, std::string& out) {
    std::size_t missing = 0;
    std::size_t good = 0;  // bytes at the start that are known to be valid
    while (good < bytes.size()) {
        good += asciiRun(bytes.substr(good));
        if (good == bytes.size()) break;
        const Utf8Step step = stepUtf8(bytes.substr(good));
        if (step.valid) {
            good += step.length;
            continue;
        }
        out.append(bytes.data(), good).append(kReplacementText);
        bytes.remove_prefix(good + step.length);
        good = 0;
        ++missing;
    }
    out.append(bytes.data(), good);
    return missing;
}

// ---------------------------------------------------------------------------------------------
// UTF-8 to bytes
// ---------------------------------------------------------------------------------------------

/// Fills *bad with the character that a text begins with; false, for callers to return.
bool refuse(std::string_view rest, std::string* bad) {
    if (bad == nullptr) return false;
    const Utf8Step step = stepUtf8(rest);
    *bad = step.valid ? rest.substr(0, step.length) : kReplacementText;
    return false;
}

bool toBytesByTable(const CodePage& page, std::string_view utf8, std::string& out,
                    std::string* bad) {
    while (!utf8.empty()) {
        const std::size_t run = page.asciiClean ? asciiRun(utf8) : 0;
        out.append(utf8.data(), run);
        utf8.remove_prefix(run);
        if (utf8.empty()) break;
        const Utf8Step step = stepUtf8(utf8);
        u8 byte = 0;
        if (!step.valid || !findByte(page, step.letter, &byte)) return refuse(utf8, bad);
        out += static_cast<char>(byte);
        utf8.remove_prefix(step.length);
    }
    return true;
}

bool copyValid(std::string_view utf8, std::string& out, std::string* bad) {
    std::size_t good = 0;
    while (good < utf8.size()) {
        good += asciiRun(utf8.substr(good));
        if (good == utf8.size()) break;
        const Utf8Step step = stepUtf8(utf8.substr(good));
        if (!step.valid) {
            out.append(utf8.data(), good);
            return refuse(utf8.substr(good), bad);
        }
        good += step.length;
    }
    out.append(utf8);
    return true;
}

// ---------------------------------------------------------------------------------------------
// Upper case
// ---------------------------------------------------------------------------------------------

/// Bytes of the character at the start of a text, its UTF-8 in letter; 1 and nothing when invalid.
std::size_t firstLetter(const CodePage& page, std::string_view bytes, std::string* letter) {
    for (std::size_t length = 1; length <= std::min<std::size_t>(4, bytes.size()); ++length) {
        std::string_view part = bytes.substr(0, length);
        letter->clear();
        const Stop stop = page.kind == CodePage::Kind::Utf8
                              ? (stepUtf8(part).valid ? Stop::End : Stop::Cut)
                              : convert(page.decoder, &part, *letter);
        if (stop == Stop::Cut) continue;
        if (page.kind == CodePage::Kind::Utf8) letter->assign(part);
        if (stop == Stop::End) return length;
        break;
    }
    letter->clear();
    return 1;
}

void foldLetters(const CodePage& page, std::span<char> bytes) {
    std::string letter;
    std::string folded;
    for (std::size_t at = 0; at < bytes.size();) {
        const std::size_t length =
            firstLetter(page, {bytes.data() + at, bytes.size() - at}, &letter);
        if (!letter.empty()) {
            char text[4];
            folded.clear();
            const std::size_t size = putUtf8(text, upperLetter(stepUtf8(letter).letter));
            if (fromUtf8(page, {text, size}, folded) && folded.size() == length) {
                std::copy(folded.begin(), folded.end(), bytes.begin() + static_cast<long>(at));
            }
        }
        at += length;
    }
}

}  // namespace

void ConverterCloser::operator()(void* converter) const { iconv_close(converter); }

std::unique_ptr<CodePage> openPage(std::string_view spelling) {
    auto page = std::make_unique<CodePage>();
    page->name = pageOfSpelling(spelling);
    if (page->name.empty()) return nullptr;
    if (page->name == "UTF-8") return page;
    const OwnPage* own = ownPage(page->name);
    if (!loadPage(page.get(), own != nullptr ? own->base : page->name.c_str())) return nullptr;
    if (own != nullptr) {
        std::transform(own->upper.begin(), own->upper.end(), page->letters.begin() + 0x80,
                       [](char16_t letter) { return letterOf(letter); });
    }
    if (page->kind == CodePage::Kind::SingleByte) finishTable(page.get());
    return page;
}

const std::string& pageName(const CodePage& page) { return page.name; }

u8 markOf(const CodePage& page) { return markOfPage(page.name); }

std::size_t toUtf8(const CodePage& page, std::string_view bytes, std::string& out) {
    if (page.kind == CodePage::Kind::Utf8) return byCheck(bytes, out);
    if (page.asciiClean) {
        const std::size_t run = asciiRun(bytes);
        out.append(bytes.data(), run);
        bytes.remove_prefix(run);
        if (bytes.empty()) return 0;
    }
    return page.kind == CodePage::Kind::SingleByte ? byTable(page, bytes, out)
                                                   : byConverter(page, bytes, out);
}

bool fromUtf8(const CodePage& page, std::string_view utf8, std::string& out, std::string* bad) {
    if (page.kind == CodePage::Kind::Utf8) return copyValid(utf8, out, bad);
    if (page.kind == CodePage::Kind::SingleByte) return toBytesByTable(page, utf8, out, bad);
    const std::size_t run = page.asciiClean ? asciiRun(utf8) : 0;
    out.append(utf8.data(), run);
    utf8.remove_prefix(run);
    if (convert(page.encoder, &utf8, out) == Stop::End) return true;
    return refuse(utf8, bad);
}

void foldCase(const CodePage& page, std::span<char> bytes) {
    if (page.kind != CodePage::Kind::SingleByte) return foldLetters(page, bytes);
    for (char& byte : bytes) byte = static_cast<char>(page.upper[static_cast<u8>(byte)]);
}

}  // namespace mira::tool
