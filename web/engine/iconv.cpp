// The converters of code pages that the C library of the browser lacks, behind the names of iconv:
// from a page to UTF-8 and back. Single-byte pages are tables made at build time from those of the
// system that builds; for others the browser's TextDecoder is asked, once, for all they have.
#include <emscripten.h>
#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "pages.h"  // made by pages.py
#include "tables/page/text.h"
#include "tables/page/utf8.h"

// clang-format off
EM_JS(int, page_letters, (const char* label, const char* lines, int size, char32_t* letters), {
    let decoder;
    try { decoder = new TextDecoder(UTF8ToString(label)); } catch (e) { return 0; }
    let at = letters >> 2;
    for (const line of decoder.decode(HEAPU8.subarray(lines, lines + size)).split("\n")) {
        const letter = line.codePointAt(0);
        const one = letter !== undefined && line.length === (letter > 0xFFFF ? 2 : 1);
        HEAPU32[at++] = one && letter !== 0xFFFD ? letter : 0;
    }
    return 1;
})
// clang-format on

namespace mira::page {
namespace {

using namespace tables;

/// How the bytes of a page make up characters. All of its single bytes, and pairs of 81 to FE and
/// 30 to FE, may be some.
enum class Longer : unsigned char {
    None,
    AfterMark,   // three bytes: 8F, then a pair
    WithDigits,  // four: 81 to FE and a digit, twice
};

/// What browsers call pages of several bytes, and names of the C library for the same.
struct BrowserPage {
    const char* label;
    Longer longer;
    std::string_view names;  ///< blanks around each
};
constexpr BrowserPage kBrowserPages[] = {
    {"shift_jis", Longer::None,
     " CP932 CSWINDOWS31J SHIFT_JIS SHIFT-JIS SJIS SJIS-OPEN SJIS-WIN MS_KANJI CSSHIFTJIS IBM-932 "
     "IBM-943 "},
    {"euc-jp", Longer::AfterMark,
     " EUC-JP EUCJP EUC-JP-MS EUCJP-MS EUCJP-OPEN EUCJP-WIN UJIS CSEUCPKDFMTJAPANESE "},
    {"gbk", Longer::None, " CP936 GBK GB2312 EUC-CN EUCCN CN-GB CSGB2312 "},
    {"gb18030", Longer::WithDigits, " GB18030 "},
    {"euc-kr", Longer::None, " CP949 UHC EUC-KR EUCKR CSEUCKR MSCP949 "},
    {"big5", Longer::None, " CP950 BIG5 BIG-5 BIG-FIVE BIGFIVE CN-BIG5 BIG5-HKSCS BIG5HKSCS "}};

// Of four bytes with digits the first letters are anything; after a gap those from U+10000 on
// follow each other.
constexpr unsigned kFours = 39420;
constexpr unsigned kPastGap = 189000;
constexpr char32_t kFirstBeyond = 0x10000, kLastBeyond = 0x10FFFF;

/// Characters by their bytes, the first of which is the highest; 0 is none.
struct Converter {
    bool toUtf8 = true;
    Longer longer = Longer::None;
    std::vector<char32_t> letters{};                 ///< of one byte, and of two
    std::unordered_map<unsigned, char32_t> more{};   ///< of three and four
    std::unordered_map<char32_t, unsigned> bytes{};  ///< the other way
};

unsigned byteAt(std::string_view text, std::size_t i) {
    return static_cast<unsigned char>(text[i]);
}

/// The number of a character of four bytes with digits.
unsigned placeOfFour(unsigned code) {
    return (((code >> 24) - 0x81) * 10 + ((code >> 16 & 0xFF) - '0')) * 1260 +
           ((code >> 8 & 0xFF) - 0x81) * 10 + ((code & 0xFF) - '0');
}
unsigned fourAt(unsigned place) {
    return (0x81 + place / 12600) << 24 | ('0' + place / 1260 % 10) << 16 |
           (0x81 + place / 10 % 126) << 8 | ('0' + place % 10);
}

std::string bytesOf(unsigned code) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
        if (code >> shift != 0 || shift == 0) bytes += static_cast<char>(code >> shift & 0xFF);
    }
    return bytes;
}

/// All that may be a character besides single bytes below 80.
std::vector<unsigned> codesOf(Longer longer) {
    std::vector<unsigned> codes;
    for (unsigned first = 0x80; first < 0x100; ++first) codes.push_back(first);
    for (unsigned first = 0x81; first < 0xFF; ++first) {
        for (unsigned second = 0x30; second < 0xFF; ++second) {
            codes.push_back(first << 8 | second);
            if (longer == Longer::AfterMark && first >= 0xA1 && second >= 0xA1) {
                codes.push_back(0x8F0000 | first << 8 | second);
            }
        }
    }
    if (longer == Longer::WithDigits) {
        for (unsigned place = 0; place < kFours; ++place) codes.push_back(fourAt(place));
    }
    return codes;
}

bool fillFromTable(std::string_view name, std::vector<char32_t>& letters) {
    const auto page =
        std::lower_bound(std::begin(kPages), std::end(kPages), name,
                         [](const PageName& a, auto b) { return std::string_view(a.name) < b; });
    if (page == std::end(kPages) || page->name != name) return false;
    letters.assign(std::begin(kLetters[page->table]), std::end(kLetters[page->table]));
    return true;
}

bool fillFromBrowser(std::string_view name, Converter& converter) {
    const auto page =
        std::find_if(std::begin(kBrowserPages), std::end(kBrowserPages), [&](const auto& one) {
            return one.names.find(textOf(' ', name, ' ')) != std::string_view::npos;
        });
    if (page == std::end(kBrowserPages)) return false;
    const std::vector<unsigned> codes = codesOf(page->longer);
    std::string lines;
    for (const unsigned code : codes) lines += bytesOf(code) + '\n';
    lines.pop_back();
    std::vector<char32_t> letters(codes.size());
    if (page_letters(page->label, lines.data(), static_cast<int>(lines.size()), letters.data()) ==
        0) {
        return false;
    }
    converter.longer = page->longer;
    converter.letters.assign(0x10000, 0);
    for (char32_t letter = 0; letter < 0x80; ++letter) converter.letters[letter] = letter;
    for (std::size_t i = 0; i < codes.size(); ++i) {
        if (codes[i] < 0x10000) {
            converter.letters[codes[i]] = letters[i];
        } else if (letters[i] != 0) {
            converter.more.emplace(codes[i], letters[i]);
        }
    }
    return true;
}

/// Bytes of the character that a text of a page of several begins with, as far as they are there.
std::size_t lengthAt(const Converter& converter, std::string_view text) {
    const unsigned second = text.size() > 1 ? byteAt(text, 1) : 0;
    if (converter.longer == Longer::AfterMark && byteAt(text, 0) == 0x8F) return 3;
    return converter.longer == Longer::WithDigits && second >= '0' && second <= '9' ? 4 : 2;
}

char32_t letterOf(const Converter& converter, unsigned code) {
    if (code < 0x10000) return converter.letters[code];
    if (const auto found = converter.more.find(code); found != converter.more.end()) {
        return found->second;
    }
    if (converter.longer != Longer::WithDigits) return 0;
    for (const unsigned shift : {0U, 16U}) {
        const unsigned digit = code >> shift & 0xFF, lead = code >> (shift + 8) & 0xFF;
        if (lead < 0x81 || lead > 0xFE || digit < '0' || digit > '9') return 0;
    }
    const unsigned place = placeOfFour(code);
    if (place < kPastGap || place - kPastGap > kLastBeyond - kFirstBeyond) return 0;
    return kFirstBeyond + (place - kPastGap);
}

/// Bytes of the character at the start of a text; 0 with errno when there is none.
std::size_t stepBytes(const Converter& converter, std::string_view text, char32_t* letter) {
    const unsigned first = byteAt(text, 0);
    *letter = converter.letters[first];
    if (*letter != 0 || first == 0) return 1;
    errno = EILSEQ;
    if (converter.letters.size() == 256 || first < 0x81 || first == 0xFF) return 0;
    const std::size_t length = lengthAt(converter, text);
    if (text.size() < length) {
        errno = EINVAL;
        return 0;
    }
    unsigned code = 0;
    for (std::size_t i = 0; i < length; ++i) code = code << 8 | byteAt(text, i);
    *letter = letterOf(converter, code);
    return *letter != 0 ? length : 0;
}

/// What turns characters into bytes, the lowest of several.
void fillBytes(Converter& converter) {
    for (unsigned code = 0; code < converter.letters.size(); ++code) {
        if (converter.letters[code] != 0 || code == 0) {
            converter.bytes.emplace(converter.letters[code], code);
        }
    }
    for (const auto& [code, letter] : converter.more) converter.bytes.emplace(letter, code);
}

std::size_t stepLetter(const Converter& converter, std::string_view text, std::string* bytes) {
    const Utf8Step step = stepUtf8(text);
    const auto found = converter.bytes.find(step.letter);
    errno = step.cut ? EINVAL : EILSEQ;
    if (!step.valid) return 0;
    if (found != converter.bytes.end()) {
        *bytes = bytesOf(found->second);
    } else if (converter.longer == Longer::WithDigits && step.letter >= kFirstBeyond) {
        *bytes = bytesOf(fourAt(kPastGap + (step.letter - kFirstBeyond)));
    } else {
        return 0;
    }
    return step.length;
}

std::size_t convert(const Converter& converter, char** from, std::size_t* left, char** to,
                    std::size_t* room) {
    std::string bytes;
    while (*left != 0) {
        const std::string_view text(*from, *left);
        std::size_t length = 0;
        if (converter.toUtf8) {
            char32_t letter = 0;
            char utf8[4];
            length = stepBytes(converter, text, &letter);
            if (length != 0) bytes.assign(utf8, putUtf8(utf8, letter));
        } else {
            length = stepLetter(converter, text, &bytes);
        }
        if (length == 0) return static_cast<std::size_t>(-1);
        if (bytes.size() > *room) {
            errno = E2BIG;
            return static_cast<std::size_t>(-1);
        }
        *to = std::copy(bytes.begin(), bytes.end(), *to);
        *room -= bytes.size();
        *from += length;
        *left -= length;
    }
    return 0;
}

}  // namespace
}  // namespace mira::page

extern "C" {

iconv_t iconv_open(const char* to, const char* from) {
    using namespace mira::page;
    auto* const converter = new Converter;
    converter->toUtf8 = std::strcmp(to, "UTF-8") == 0;
    const std::string name = mira::tables::upperAscii(converter->toUtf8 ? from : to);
    if (!fillFromTable(name, converter->letters) && !fillFromBrowser(name, *converter)) {
        delete converter;
        errno = EINVAL;
        return reinterpret_cast<iconv_t>(-1);
    }
    if (!converter->toUtf8) fillBytes(*converter);
    return converter;
}

std::size_t iconv(iconv_t converter, char** from, std::size_t* left, char** to, std::size_t* room) {
    if (from == nullptr || *from == nullptr) return 0;  // nothing is held back
    return mira::page::convert(*static_cast<mira::page::Converter*>(converter), from, left, to,
                               room);
}

int iconv_close(iconv_t converter) {
    delete static_cast<mira::page::Converter*>(converter);
    return 0;
}
}
