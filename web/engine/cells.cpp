#include "cells.h"

#include "tables/page/json.h"
#include "tables/page/text.h"
#include "tables/page/utf8.h"
#include "tables/value/plain.h"

namespace mira::page {
namespace {

using namespace tables;

constexpr std::size_t kShown = 2048;  // bytes of a text that go into the grid
constexpr std::size_t kBinary =
    1536;  // bytes that become as many letters of base64; three's multiple

/// The start of a text that ends with a whole letter.
std::string_view cutText(std::string_view text) {
    std::size_t end = kShown;
    while (end != 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80) --end;
    return text.substr(0, end);
}

}  // namespace

std::string_view pictureKind(std::string_view bytes) {
    if (bytes.starts_with("\x89PNG\r\n\x1A\n")) return "png";
    if (bytes.starts_with("\xFF\xD8\xFF")) return "jpeg";
    if (bytes.starts_with("GIF87a") || bytes.starts_with("GIF89a")) return "gif";
    if (bytes.starts_with("BM") && bytes.size() > 54) return "bmp";
    if (bytes.starts_with("RIFF") && bytes.substr(0, 12).ends_with("WEBP")) return "webp";
    return {};
}

void putCell(std::string& json, const Value& value) {
    if (value.kind == ValueKind::Null) {
        json += "null";
        return;
    }
    std::string plain;
    std::size_t bytes = 0;
    const bool binary = value.kind == ValueKind::Bytes;
    std::string_view text = value.text;
    if (binary) {
        Value start = value;
        start.text = text.substr(0, kBinary);
        putPlain(plain, start);
        bytes = text.size();
        text = plain;
    } else if (value.kind != ValueKind::Text) {
        putPlain(plain, value);
        text = plain;
    } else if (text.size() > kShown) {
        bytes = text.size();
        text = cutText(text);
    }
    const bool simple = !binary && bytes == 0 && value.fault == Fault::None;
    if (simple) return putJsonString(json, text, false);
    json += "{\"t\":";
    putJsonString(json, text, false);
    if (bytes != 0 || binary) json += textOf(",\"n\":", bytes);
    if (binary) json += textOf(",\"b\":\"", pictureKind(value.text), '"');
    if (value.fault != Fault::None) {
        json += ",\"f\":";
        putJsonString(json, faultSentence(value.fault, 1), true);
    }
    json += '}';
}

void putCsvText(std::string& csv, std::string_view text) {
    if (text.find_first_of(",\"\r\n") == std::string_view::npos) {
        csv += text;
        return;
    }
    csv += '"';
    for (const char c : text) {
        if (c == '"') csv += '"';
        csv += c;
    }
    csv += '"';
}

void putCsv(std::string& csv, const Value& value, bool mayBeNull) {
    if (value.kind == ValueKind::Null || value.kind == ValueKind::Blank) return;
    if (value.kind != ValueKind::Text) return putPlain(csv, value);
    if (value.text.empty() && mayBeNull) csv += "\"\"";
    putCsvText(csv, value.text);
}

}  // namespace mira::page
