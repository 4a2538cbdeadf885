// JSON: an object per row, as one array or a line each.
#include <algorithm>
#include <array>
#include <cmath>

#include "rows/writer.h"
#include "tables/page/utf8.h"
#include "terminal/message.h"

namespace mira::tool {
namespace {

/// Bytes that a JSON string cannot hold as they are.
constexpr std::array<bool, 256> kSpecial = [] {
    std::array<bool, 256> special{};
    for (std::size_t c = 0; c < 0x20; ++c) special[c] = true;
    special['"'] = special['\\'] = true;
    return special;
}();

/// The same and those that begin a letter which it can, but should not: U+0085, U+2028 and U+2029
/// end lines for some readers.
constexpr std::array<bool, 256> kUnusual = [] {
    std::array<bool, 256> unusual = kSpecial;
    unusual[0xC2] = unusual[0xE2] = true;
    return unusual;
}();

/// The length of such a letter at the start of a text; 0 where there is another one.
std::size_t lineEndLength(std::string_view text) {
    for (const std::string_view end : {"\xC2\x85", "\xE2\x80\xA8", "\xE2\x80\xA9"}) {
        if (text.starts_with(end)) return end.size();
    }
    return 0;
}

void putEscape(std::string& out, char32_t letter) {
    constexpr std::string_view kNamed = "\"\\\b\f\n\r\t";
    constexpr std::string_view kNames = "\"\\bfnrt";
    const std::size_t named =
        letter < 0x80 ? kNamed.find(static_cast<char>(letter)) : std::string_view::npos;
    if (named != std::string_view::npos) {
        out += '\\';
        out += kNames[named];
    } else {
        fmt::format_to(std::back_inserter(out), "\\u{:04x}", static_cast<unsigned>(letter));
    }
}

/// The text with everything escaped that a terminal must not see.
void putForTerminal(std::string& out, std::string_view text) {
    while (!text.empty()) {
        const Utf8Step step = stepUtf8(text);
        const std::string_view letter = text.substr(0, step.length);
        if (needsEscape(letter) || (step.letter < 0x80 && kSpecial[step.letter])) {
            putEscape(out, step.letter);
        } else {
            out += letter;
        }
        text.remove_prefix(step.length);
    }
}

class JsonWriter final : public RowWriter {
public:
    JsonWriter(Output& out, const WriterOptions& options)
        : out_(out), lines_(options.format == Format::JsonLines) {}

    void begin(const std::vector<Heading>& headings) override {
        for (const Heading& heading : headings) {
            std::string key = keys_.empty() ? "" : ",";
            putJsonString(key, heading.name, out_.isTerminal());
            keys_.push_back(key + ":");
        }
        if (!lines_) out_.put('[');
    }
    void endRow() override {
        if (keys_.empty()) beginRow();
        out_.put(lines_ ? "}\n" : "}");
    }
    void end() override {
        if (!lines_) out_.put(first_ ? "]\n" : "\n]\n");
    }

    void cell(std::size_t column, const Value& value) override {
        if (column == 0) beginRow();
        out_.put(keys_[column]);
        switch (value.kind) {
            case ValueKind::Null:
            case ValueKind::Blank:
                return out_.put("null");
            case ValueKind::Text:
                return putText(value.text);
            case ValueKind::Date:
                return putSimple(value.text);
            case ValueKind::Moment:
                text_.assign(value.text)[10] = 'T';
                return putSimple(text_);
            case ValueKind::Digits:
                text_.clear();
                putJsonNumber(text_, value.text);
                return out_.put(text_);
            case ValueKind::Currency:
                return out_.put(value.text);
            case ValueKind::Bytes:
                text_.assign("{\"base64\":\"");
                putBase64(text_, value.text);
                out_.put(text_);
                return out_.put("\"}");
            case ValueKind::Real:
                if (!std::isfinite(value.real)) return out_.put("null");
                [[fallthrough]];
            default:
                text_.clear();
                putPlain(text_, value);
                return out_.put(text_);
        }
    }

private:
    void beginRow() {
        if (!lines_) out_.put(first_ ? "\n" : ",\n");
        first_ = false;
        out_.put('{');
    }

    void putSimple(std::string_view text) {
        out_.put('"');
        out_.put(text);
        out_.put('"');
    }

    void putText(std::string_view text) {
        if (!out_.isTerminal() && text.size() + 2 <= Output::kRoom && copyPlain(text)) return;
        text_.clear();
        putJsonString(text_, text, out_.isTerminal());
        out_.put(text_);
    }

    /// Copies a text without anything to escape; false when there is.
    bool copyPlain(std::string_view text) {
        char* const to = out_.room(text.size() + 2);
        to[0] = '"';
        for (std::size_t i = 0; i < text.size(); ++i) {
            if (kUnusual[static_cast<u8>(text[i])]) return false;
            to[i + 1] = text[i];
        }
        to[text.size() + 1] = '"';
        out_.taken(text.size() + 2);
        return true;
    }

    Output& out_;
    const bool lines_;
    bool first_ = true;
    std::vector<std::string> keys_;
    std::string text_;
};

}  // namespace

void putJsonString(std::string& out, std::string_view utf8, bool terminal) {
    out += '"';
    if (terminal) {
        putForTerminal(out, utf8);
        utf8 = {};
    }
    while (!utf8.empty()) {
        const auto unusual = std::find_if(utf8.begin(), utf8.end(),
                                          [](char c) { return kUnusual[static_cast<u8>(c)]; });
        const auto run = static_cast<std::size_t>(unusual - utf8.begin());
        out += utf8.substr(0, run);
        utf8.remove_prefix(run);
        if (utf8.empty()) break;
        const std::size_t lineEnd = lineEndLength(utf8);
        if (lineEnd != 0 || kSpecial[static_cast<u8>(utf8.front())]) {
            putEscape(out, stepUtf8(utf8).letter);
        } else {
            out += utf8.front();
        }
        utf8.remove_prefix(std::max<std::size_t>(lineEnd, 1));
    }
    out += '"';
}

void putJsonNumber(std::string& out, std::string_view digits) {
    if (digits.front() == '-') out += '-';
    if (digits.front() == '-' || digits.front() == '+') digits.remove_prefix(1);
    const std::size_t wholeEnd = std::min(digits.find_first_of(".eE"), digits.size());
    std::string_view whole = digits.substr(0, wholeEnd);
    while (whole.size() > 1 && whole.front() == '0') whole.remove_prefix(1);
    if (whole.empty()) whole = "0";
    out += whole;
    std::string_view rest = digits.substr(wholeEnd);
    const bool pointOnly =
        !rest.empty() && rest[0] == '.' && (rest.size() == 1 || rest[1] == 'e' || rest[1] == 'E');
    if (pointOnly) rest.remove_prefix(1);
    out += rest;
}

std::unique_ptr<RowWriter> jsonWriter(Output& out, const WriterOptions& options) {
    return std::make_unique<JsonWriter>(out, options);
}

}  // namespace mira::tool
