// CSV: a comma between cells, quotes around those that hold a comma, a quote or a line end, quotes
// in them doubled. TSV: a tab between cells; tab, line ends and backslash in them as \t \n \r \\.
#include <array>
#include <cstring>

#include "rows/writer.h"
#include "terminal/message.h"

namespace mira::tool {
namespace {

constexpr std::string_view kBom = "\xEF\xBB\xBF";

/// What numbers, dates and base64 are made of: no delimiter among these needs a look at each cell.
constexpr std::string_view kPlainBytes =
    "0123456789+-.: ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz/=";

/// Whether a spreadsheet may take a text for a formula: it looks for the sign behind blanks and
/// line ends, and knows its wide forms (U+FF1D, FF0B, FF0D, FF20), too.
bool mayBeFormula(std::string_view text) {
    if (text[0] == '\t' || text[0] == '\r') return true;
    while (!text.empty() &&
           (text[0] == ' ' || text[0] == '\n' || text[0] == '\r' || text[0] == '\t')) {
        text.remove_prefix(1);
    }
    for (const std::string_view sign :
         {"=", "+", "-", "@", "\xEF\xBC\x9D", "\xEF\xBC\x8B", "\xEF\xBC\x8D", "\xEF\xBC\xA0"}) {
        if (text.starts_with(sign)) return true;
    }
    return false;
}

/// What both have in common: cells of a row with a delimiter between.
class DelimitedWriter : public RowWriter {
public:
    DelimitedWriter(Output& out, const WriterOptions& options, char delimiter)
        : out_(out), options_(options), delimiter_(delimiter) {}

    void begin(const std::vector<Heading>& headings) override {
        headings_ = headings;
        if (options_.bom || options_.excel) out_.put(kBom);
        if (!options_.heading) return;
        Value name;
        name.kind = ValueKind::Text;
        for (std::size_t i = 0; i < headings_.size(); ++i) {
            name.text = headings_[i].name;
            cell(i, name);
        }
        endRow();
    }
    void endRow() override { out_.put(options_.crlf || options_.excel ? "\r\n" : "\n"); }
    void end() override {}

    void cell(std::size_t column, const Value& value) override {
        if (column != 0) out_.put(delimiter_);
        switch (value.kind) {
            case ValueKind::Null:
            case ValueKind::Blank:
                return;
            case ValueKind::Text:
                if (out_.isTerminal() && needsEscape(value.text)) {
                    return putText(column, escaped(value.text));
                }
                return putText(column, value.text);
            case ValueKind::Digits:
            case ValueKind::Currency:
            case ValueKind::Date:
            case ValueKind::Moment:
                return putPlainText(value.text);
            case ValueKind::Integer:
            case ValueKind::Real:
            case ValueKind::Logical:
            case ValueKind::Bytes:
                plain_.clear();
                putPlain(plain_, value);
                return putPlainText(plain_);
        }
    }

protected:
    /// Writes a text as this format does.
    virtual void putText(std::size_t column, std::string_view text) = 0;
    /// A text that can only hold a delimiter where that is an unusual one.
    virtual void putPlainText(std::string_view text) = 0;

    Output& out_;
    const WriterOptions options_;
    const char delimiter_;
    std::vector<Heading> headings_;
    std::string plain_;
};

class CsvWriter final : public DelimitedWriter {
public:
    CsvWriter(Output& out, const WriterOptions& options)
        : DelimitedWriter(out, options, options.delimiter) {
        for (const char c : {delimiter_, '"', '\r', '\n'}) special_[static_cast<u8>(c)] = true;
        unusual_ = kPlainBytes.find(delimiter_) != std::string_view::npos;
    }

private:
    void putText(std::size_t column, std::string_view text) override {
        if (text.empty()) {
            if (headings_[column].mayBeNull) out_.put("\"\"");
            return;
        }
        if (options_.excel && mayBeFormula(text)) {
            ++guarded;
            guardedText_.assign("'").append(text);
            text = guardedText_;
        }
        if (text.size() <= Output::kRoom && copyPlain(text)) return;
        putQuoted(text);
    }

    void putPlainText(std::string_view text) override {
        if (unusual_ && !copyPlain(text)) return putQuoted(text);
        if (!unusual_) out_.put(text);
    }

    /// Copies a text that needs no quotes; false when it does.
    bool copyPlain(std::string_view text) {
        if (text.size() > Output::kRoom) return false;
        char* const to = out_.room(text.size());
        for (std::size_t i = 0; i < text.size(); ++i) {
            if (special_[static_cast<u8>(text[i])]) return false;
            to[i] = text[i];
        }
        out_.taken(text.size());
        return true;
    }

    void putQuoted(std::string_view text) {
        out_.put('"');
        while (true) {
            const std::size_t quote = text.find('"');
            out_.put(text.substr(0, quote));
            if (quote == std::string_view::npos) break;
            out_.put("\"\"");
            text.remove_prefix(quote + 1);
        }
        out_.put('"');
    }

    std::array<bool, 256> special_{};
    bool unusual_ = false;
    std::string guardedText_;
};

class TsvWriter final : public DelimitedWriter {
public:
    TsvWriter(Output& out, const WriterOptions& options) : DelimitedWriter(out, options, '\t') {}

private:
    void putText(std::size_t /*column*/, std::string_view text) override {
        constexpr std::string_view kSpecial = "\t\n\r\\";
        constexpr std::string_view kLetters = "tnr\\";
        while (true) {
            const std::size_t place = text.find_first_of(kSpecial);
            out_.put(text.substr(0, place));
            if (place == std::string_view::npos) return;
            out_.put('\\');
            out_.put(kLetters[kSpecial.find(text[place])]);
            text.remove_prefix(place + 1);
        }
    }
    void putPlainText(std::string_view text) override { out_.put(text); }
};

}  // namespace

std::unique_ptr<RowWriter> csvWriter(Output& out, const WriterOptions& options) {
    return std::make_unique<CsvWriter>(out, options);
}

std::unique_ptr<RowWriter> tsvWriter(Output& out, const WriterOptions& options) {
    return std::make_unique<TsvWriter>(out, options);
}

}  // namespace mira::tool
