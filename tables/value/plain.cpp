#include "tables/value/plain.h"

#include <algorithm>
#include <charconv>

namespace mira::tables {
namespace {

template <typename Number>
void putNumber(std::string& out, Number number) {
    char text[40];
    const char* const end = std::to_chars(text, text + sizeof text, number).ptr;
    out.append(text, static_cast<std::size_t>(end - text));
}

}  // namespace

void putBase64(std::string& out, std::string_view bytes) {
    constexpr char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    out.reserve(out.size() + (bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t have = std::min<std::size_t>(bytes.size() - i, 3);
        u32 bits = 0;
        for (std::size_t k = 0; k < 3; ++k) {
            bits = bits << 8 | (k < have ? static_cast<u8>(bytes[i + k]) : 0U);
        }
        for (std::size_t k = 0; k < 4; ++k) {
            out += k <= have ? kLetters[bits >> (18 - 6 * k) & 63] : '=';
        }
    }
}

void putPlain(std::string& out, const Value& value) {
    switch (value.kind) {
        case ValueKind::Null:
        case ValueKind::Blank:
            return;
        case ValueKind::Integer:
            return putNumber(out, value.integer);
        case ValueKind::Real:
            return putNumber(out, value.real);
        case ValueKind::Logical:
            out += value.integer != 0 ? "true" : "false";
            return;
        case ValueKind::Bytes:
            out += "base64:";
            return putBase64(out, value.text);
        case ValueKind::Text:
        case ValueKind::Digits:
        case ValueKind::Currency:
        case ValueKind::Date:
        case ValueKind::Moment:
            out += value.text;
    }
}

}  // namespace mira::tables
