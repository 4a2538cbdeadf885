// JSON: an object per row, as one array or a line each.
#include <algorithm>
#include <cmath>

#include "rows/writer.h"

namespace mira::tool {
namespace {

/// Stored digits as a JSON number.
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

class JsonWriter final : public RowWriter {
public:
    JsonWriter(Output& out, bool lines) : out_(out), lines_(lines) {}

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
        if (value.kind == ValueKind::Text) return putText(value.text);
        text_.clear();
        putJsonValue(text_, value, out_.isTerminal());
        out_.put(text_);
    }

private:
    void beginRow() {
        if (!lines_) out_.put(first_ ? "\n" : ",\n");
        first_ = false;
        out_.put('{');
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
            if (isJsonUnusual(text[i])) return false;
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

void putJsonValue(std::string& out, const Value& value, bool terminal) {
    switch (value.kind) {
        case ValueKind::Null:
        case ValueKind::Blank:
            out += "null";
            return;
        case ValueKind::Text:
            return putJsonString(out, value.text, terminal);
        case ValueKind::Date:
            ((out += '"') += value.text) += '"';
            return;
        case ValueKind::Moment:
            ((out += '"') += value.text) += '"';
            out[out.size() - 1 - value.text.size() + 10] = 'T';
            return;
        case ValueKind::Digits:
            return putJsonNumber(out, value.text);
        case ValueKind::Bytes:
            out += "{\"base64\":\"";
            putBase64(out, value.text);
            out += "\"}";
            return;
        case ValueKind::Real:
            if (std::isfinite(value.real)) return putPlain(out, value);
            out += "null";
            return;
        case ValueKind::Currency:
        case ValueKind::Integer:
        case ValueKind::Logical:
            return putPlain(out, value);
    }
}

std::unique_ptr<RowWriter> jsonWriter(Output& out, const WriterOptions& /*options*/) {
    return std::make_unique<JsonWriter>(out, false);
}

std::unique_ptr<RowWriter> jsonLinesWriter(Output& out, const WriterOptions& /*options*/) {
    return std::make_unique<JsonWriter>(out, true);
}

}  // namespace mira::tool
