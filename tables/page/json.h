// Texts and objects in JSON.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace mira::tables {

/// Bytes that a JSON string cannot hold as they are.
inline constexpr std::array<bool, 256> kJsonSpecial = [] {
    std::array<bool, 256> special{};
    for (std::size_t i = 0; i < 0x20; ++i) special[i] = true;
    special['"'] = special['\\'] = true;
    return special;
}();

/// The same and those that begin a letter which it can, but should not: U+0085, U+2028 and U+2029
/// end lines for some readers.
inline bool isJsonUnusual(char c) {
    static constexpr std::array<bool, 256> kUnusual = [] {
        std::array<bool, 256> unusual = kJsonSpecial;
        unusual[0xC2] = unusual[0xE2] = true;
        return unusual;
    }();
    return kUnusual[static_cast<unsigned char>(c)];
}
/// Appends a text as a JSON string; for a terminal without control characters.
void putJsonString(std::string& out, std::string_view utf8, bool terminal);

/// A JSON object that grows, for eyes and programs: without control characters.
class JsonObject {
public:
    void text(std::string_view key, std::string_view value) {
        name(key);
        putJsonString(json_, value, true);
    }
    void textOrNull(std::string_view key, std::string_view value) {
        if (value.empty()) return raw(key, "null");
        text(key, value);
    }
    void number(std::string_view key, std::uint64_t value) { raw(key, std::to_string(value)); }
    void truth(std::string_view key, bool value) { raw(key, value ? "true" : "false"); }
    void raw(std::string_view key, std::string_view json) {
        name(key);
        json_ += json;
    }
    void texts(std::string_view key, const std::vector<std::string>& values) {
        std::string list = "[";
        for (const std::string& value : values) {
            if (list.size() > 1) list += ',';
            putJsonString(list, value, true);
        }
        raw(key, list + "]");
    }
    std::string whole() const { return json_ + "}"; }

private:
    void name(std::string_view key) {
        if (json_.size() > 1) json_ += ',';
        putJsonString(json_, key, true);
        json_ += ':';
    }
    std::string json_ = "{";
};

}  // namespace mira::tables
