// Code pages: texts of tables as UTF-8 and back, and which page a table is in.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mira.h"

namespace mira::tables {

struct ConverterCloser {
    void operator()(void* converter) const;
};
/// A converter of the C library.
using Converter = std::unique_ptr<void, ConverterCloser>;

/// A character as UTF-8. Copied whole, so that its length need not be known beforehand.
struct Letter {
    char text[6];
    u8 length;
    u8 missing;  ///< 1: the byte stands for no character, text is U+FFFD
};

/// A code page as a converter; made once per table, used for every text by one thread at a time.
struct CodePage {
    enum class Kind { SingleByte, MultiByte, Utf8 };

    std::string name;
    Kind kind = Kind::Utf8;
    bool asciiClean = true;  ///< bytes below 80 are ASCII, all of them

    // Of a single-byte page.
    std::array<Letter, 256> letters{};
    std::vector<std::pair<char32_t, u8>> bytes;  ///< the other way, in order
    std::array<u8, 256> upper{};                 ///< upper-case letters, byte for byte

    // Of a multi-byte page.
    Converter decoder;
    Converter encoder;
};

/// By any spelling that --code-page or a .cpg file takes; null when nobody knows it.
std::unique_ptr<CodePage> openPage(std::string_view spelling);
/// As `mira info` shows it: "CP866", "UTF-8", "620".
const std::string& pageName(const CodePage&);
/// The mark byte that says a page in a header; 0 when none does.
u8 markOf(const CodePage&);

/// Appends bytes as UTF-8; returns how many bytes or sequences became U+FFFD.
std::size_t toUtf8(const CodePage&, std::string_view bytes, std::string& out);
/// Appends UTF-8 as bytes of the page; false when the page lacks a character (out then holds what
/// came before); *bad gets that character when given.
bool fromUtf8(const CodePage&, std::string_view utf8, std::string& out, std::string* bad = nullptr);
/// Turns bytes of the page into upper case in place. A letter whose capital the page lacks, or
/// keeps in another number of bytes, stays.
void foldCase(const CodePage&, std::span<char> bytes);

/// The page of a table, and whence it is known.
struct PageChoice {
    /// Shared by the handles of one thread; null where the C library lacks it.
    std::shared_ptr<CodePage> page;
    std::string missing;  ///< its name then
    /// "--code-page", ".cpg", "mark 0x26", "driver DB866RU0", "guess", "UTF-8 text", "default"
    std::string from;
    std::vector<std::string> notes;  ///< unknown names and marks, in sentences
    bool isWeak = false;             ///< a guess or a default
    bool uncertain = false;          ///< one that met a byte above 7F
    u8 mark = 0;                     ///< header byte 29
};

}  // namespace mira::tables
