// The converters of code pages that the C library of the browser lacks, behind the names of iconv:
// from a page to UTF-8 and back. Single-byte pages are tables made at build time from those of the
// system that builds; pages of one or two bytes are asked of the browser's TextDecoder, once.
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
EM_JS(int, page_letters, (const char* label, char32_t* letters), {
    let decoder;
    try { decoder = new TextDecoder(UTF8ToString(label), {fatal: true}); } catch (e) { return 0; }
    const start = letters >> 2;
    const one = (bytes) => {
        try {
            const text = Array.from(decoder.decode(Uint8Array.from(bytes)));
            return text.length == 1 ? text[0].codePointAt(0) : 0;
        } catch (e) { return 0; }
    };
    for (let lead = 0; lead < 256; lead++) {
        HEAPU32[start + lead] = one([lead]);
        if (lead < 0x81 || HEAPU32[start + lead]) continue;
        for (let trail = 0x30; trail < 255; trail++) HEAPU32[start + lead * 256 + trail] = one([lead, trail]);
    }
    return 1;
})
// clang-format on

namespace mira::page {
namespace {

using namespace tables;

/// Names of the C library and what browsers call the same.
constexpr std::pair<std::string_view, const char*> kBrowserPages[] = {
    {"CP932", "shift_jis"}, {"SHIFT_JIS", "shift_jis"},
    {"SJIS", "shift_jis"},  {"CP936", "gbk"},
    {"GBK", "gbk"},         {"GB2312", "gbk"},
    {"EUC-CN", "gbk"},      {"GB18030", "gb18030"},
    {"CP949", "euc-kr"},    {"UHC", "euc-kr"},
    {"EUC-KR", "euc-kr"},   {"CP950", "big5"},
    {"BIG5", "big5"},       {"BIG-5", "big5"}};

/// Characters by their bytes, of two the first times 256 and the second; 0 is none.
struct Converter {
    bool toUtf8 = true;
    std::vector<char32_t> letters{};
    std::unordered_map<char32_t, unsigned> bytes{};  ///< the other way
};

bool fillFromTable(std::string_view name, std::vector<char32_t>& letters) {
    const auto page = std::find_if(std::begin(kPages), std::end(kPages),
                                   [&](const auto& page) { return name == page.name; });
    if (page == std::end(kPages)) return false;
    letters.assign(256, 0);
    for (unsigned byte = 0; byte < 256; ++byte) {
        letters[byte] = byte < 0x80 ? byte : kLetters[page->table][byte - 0x80];
    }
    return true;
}

bool fillFromBrowser(std::string_view name, std::vector<char32_t>& letters) {
    for (const auto& [known, label] : kBrowserPages) {
        if (name != known) continue;
        letters.assign(0x10000, 0);
        return page_letters(label, letters.data()) != 0;
    }
    return false;
}

/// Bytes of the character at the start of a text; 0 with errno when there is none.
std::size_t stepBytes(const Converter& converter, std::string_view text, char32_t* letter) {
    const auto first = static_cast<unsigned char>(text[0]);
    *letter = converter.letters[first];
    if (*letter != 0 || first == 0) return 1;
    errno = EILSEQ;
    if (converter.letters.size() == 256 || first < 0x81 || first == 0xFF) return 0;
    if (text.size() == 1) {
        errno = EINVAL;
        return 0;
    }
    *letter = converter.letters[first * 256U + static_cast<unsigned char>(text[1])];
    return *letter != 0 ? 2 : 0;
}

std::size_t stepLetter(const Converter& converter, std::string_view text, std::string* bytes) {
    const Utf8Step step = stepUtf8(text);
    const auto found = converter.bytes.find(step.letter);
    errno = step.cut ? EINVAL : EILSEQ;
    if (!step.valid || found == converter.bytes.end()) return 0;
    bytes->clear();
    if (found->second > 0xFF) *bytes += static_cast<char>(found->second >> 8);
    *bytes += static_cast<char>(found->second & 0xFF);
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
    if (!fillFromTable(name, converter->letters) && !fillFromBrowser(name, converter->letters)) {
        delete converter;
        errno = EINVAL;
        return reinterpret_cast<iconv_t>(-1);
    }
    if (!converter->toUtf8) {
        for (unsigned i = 0; i < converter->letters.size(); ++i) {
            if (converter->letters[i] != 0 || i == 0)
                converter->bytes.emplace(converter->letters[i], i);
        }
    }
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
