// Code pages as converters. A single-byte page is a table of 256, filled once by the C library; the
// C library converts the rest, but for UTF-8, which is only checked.
#include "tables/page/codepage.h"

#include <iconv.h>
#include <utf8proc.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <optional>

#include "tables/page/pagenames.h"
#include "tables/page/text.h"
#include "tables/page/utf8.h"

namespace mira::tables {
namespace {

// Pages that the C library lacks, from 80 on. 620 and 895 go on as page 437 does.
constexpr std::u16string_view kMazovia =
    u"ÇüéâäàąçêëèïîćÄĄĘęłôöĆûùŚÖÜ¢Ł¥śƒ"
    u"ŹŻóÓńŃźż¿⌐¬½¼¡«»";
constexpr std::u16string_view kKamenicky =
    u"ČüéďäĎŤčěĚĹÍľĺÄÁÉžŽôöÓůÚýÖÜŠĽÝŘť"
    u"áíóúňŇŮÔšřŕŔ¼§«»";
constexpr std::u16string_view kMacGreek =
    u"Ä¹²É³ÖÜ΅àâä΄¨çéèêë£™îï•½‰ôö¦€ùûü"
    u"†ΓΔΘΛΞΠß®©ΣΪ§≠°·Α±≤≥¥ΒΕΖΗΙΚΜΦΫΨΩ"
    u"άΝ¬ΟΡ≈Τ«»…\u00A0ΥΧΆΈœ–―“”‘’÷ΉΊΌΎέήίόΏ"
    u"ύαβψδεφγηιξκλμνοπώρστθωςχυζϊϋΐΰ\u00AD";

struct OwnPage {
    const char* name;
    const char* base;  ///< the page that has the bytes left out
    std::u16string_view upper;
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
    if (failed && errno == ENOMEM) throw std::bad_alloc();
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
        if (c == ' ' || (c != '_' && isWordByte(c))) return false;
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

/// The byte of a character, which the lowest of several is; nothing when the page lacks it.
std::optional<u8> byteOf(const CodePage& page, char32_t letter) {
    const auto at =
        std::lower_bound(page.bytes.begin(), page.bytes.end(), std::pair<char32_t, u8>(letter, 0));
    if (at == page.bytes.end() || at->first != letter) return std::nullopt;
    return at->second;
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
        const char32_t letter = singleLetter(page->letters[byte]);
        const std::optional<u8> upper =
            letter != 0 ? byteOf(*page, upperLetter(letter)) : std::nullopt;
        page->upper[byte] = upper.value_or(static_cast<u8>(byte));
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
    for (std::size_t missing = 0;; ++missing) {
        const std::size_t run = validRun(bytes);
        out += bytes.substr(0, run);
        bytes.remove_prefix(run);
        if (bytes.empty()) return missing;
        out += kReplacementText;
        bytes.remove_prefix(stepUtf8(bytes).length);
    }
}

// ---------------------------------------------------------------------------------------------
// UTF-8 to bytes
// ---------------------------------------------------------------------------------------------

/// Appends the text converted up to the first character that the page lacks; false when there is
/// one, with which the text then begins.
bool toBytesByTable(const CodePage& page, std::string_view* utf8, std::string& out) {
    while (true) {
        const std::size_t run = page.asciiClean ? asciiRun(*utf8) : 0;
        out += utf8->substr(0, run);
        utf8->remove_prefix(run);
        if (utf8->empty()) return true;
        const Utf8Step step = stepUtf8(*utf8);
        const std::optional<u8> byte = step.valid ? byteOf(page, step.letter) : std::nullopt;
        if (!byte) return false;
        out += static_cast<char>(*byte);
        utf8->remove_prefix(step.length);
    }
}

bool copyValid(std::string_view* utf8, std::string& out) {
    const std::size_t run = validRun(*utf8);
    out += utf8->substr(0, run);
    utf8->remove_prefix(run);
    return utf8->empty();
}

bool toBytes(const CodePage& page, std::string_view* utf8, std::string& out) {
    if (page.kind == CodePage::Kind::Utf8) return copyValid(utf8, out);
    if (page.kind == CodePage::Kind::SingleByte) return toBytesByTable(page, utf8, out);
    const std::size_t run = page.asciiClean ? asciiRun(*utf8) : 0;
    out += utf8->substr(0, run);
    utf8->remove_prefix(run);
    return convert(page.encoder, utf8, out) == Stop::End;
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
    if (toBytes(page, &utf8, out)) return true;
    if (bad == nullptr) return false;
    const Utf8Step step = stepUtf8(utf8);
    *bad = step.valid ? utf8.substr(0, step.length) : kReplacementText;
    return false;
}

void foldCase(const CodePage& page, std::span<char> bytes) {
    if (page.kind != CodePage::Kind::SingleByte) return foldLetters(page, bytes);
    for (char& byte : bytes) byte = static_cast<char>(page.upper[static_cast<u8>(byte)]);
}

}  // namespace mira::tables
