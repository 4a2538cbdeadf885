// UTF-8, one step at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace mira::tables {

inline constexpr char32_t kReplacement = 0xFFFD;
inline constexpr std::string_view kReplacementText = "\xEF\xBF\xBD";

/// A character at the start of a text, or bytes that are none: the longest beginning of one that
/// goes no further.
struct Utf8Step {
    char32_t letter;
    std::size_t length;  ///< bytes, 1 to 4
    bool valid;
    bool cut;  ///< not valid because the text ends inside the character
};

/// The step at the start of a text that is not empty.
inline Utf8Step stepUtf8(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) return {lead, 1, true, false};
    if (lead < 0xC2 || lead > 0xF4) return {kReplacement, 1, false, false};
    const std::size_t more = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
    // The second byte's range keeps out overlong forms, surrogates and what lies past U+10FFFF.
    unsigned low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    unsigned high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    char32_t letter = lead & (0x3Fu >> more);
    for (std::size_t i = 1; i <= more; ++i) {
        if (i == text.size()) return {kReplacement, i, false, true};
        const auto next = static_cast<unsigned char>(text[i]);
        if (next < low || next > high) return {kReplacement, i, false, false};
        low = 0x80;
        high = 0xBF;
        letter = letter << 6 | (next & 0x3Fu);
    }
    return {letter, more + 1, true, false};
}

/// Writes a character as 1 to 4 bytes; returns their number.
inline std::size_t putUtf8(char* to, char32_t letter) {
    const auto tail = [&](unsigned shift) {
        return static_cast<char>(0x80u | (letter >> shift & 0x3Fu));
    };
    if (letter < 0x80) {
        to[0] = static_cast<char>(letter);
        return 1;
    }
    if (letter < 0x800) {
        to[0] = static_cast<char>(0xC0u | letter >> 6);
        to[1] = tail(0);
        return 2;
    }
    if (letter < 0x10000) {
        to[0] = static_cast<char>(0xE0u | letter >> 12);
        to[1] = tail(6);
        to[2] = tail(0);
        return 3;
    }
    to[0] = static_cast<char>(0xF0u | letter >> 18);
    to[1] = tail(12);
    to[2] = tail(6);
    to[3] = tail(0);
    return 4;
}

/// Bytes below 80 at the start of a text.
inline std::size_t asciiRun(std::string_view text) {
    std::size_t run = 0;
    for (; run + sizeof(std::uint64_t) <= text.size(); run += sizeof(std::uint64_t)) {
        std::uint64_t eight = 0;
        std::memcpy(&eight, text.data() + run, sizeof eight);
        if ((eight & 0x8080808080808080u) != 0) break;
    }
    while (run < text.size() && static_cast<unsigned char>(text[run]) < 0x80) ++run;
    return run;
}

/// Bytes at the start of a text that are valid.
inline std::size_t validRun(std::string_view text) {
    for (std::size_t run = 0;;) {
        run += asciiRun(text.substr(run));
        if (run == text.size()) return run;
        const Utf8Step step = stepUtf8(text.substr(run));
        if (!step.valid) return run;
        run += step.length;
    }
}

}  // namespace mira::tables
