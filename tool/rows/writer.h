// Rows as text: CSV, TSV, JSON. What a table, a query or any other source of values gives.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "rows/output.h"
#include "tables.h"
#include "tables/value/value.h"

namespace mira::tool {

enum class Format : u8 { None, Csv, Tsv, Json, JsonLines, Sqlite };

struct WriterOptions {
    Format format = Format::Csv;
    bool heading = true;
    bool bom = false;
    bool crlf = false;
    char delimiter = ',';
    bool excel = false;  // a "'" before texts that a spreadsheet would take for a formula
};

struct Heading {
    std::string name;
    bool mayBeNull = false;  // an empty text is told from null
};

/// Rows to an Output: begin, then for every row a cell per column and endRow, then end.
class RowWriter {
public:
    virtual ~RowWriter() = default;
    virtual void begin(const std::vector<Heading>& headings) = 0;
    virtual void cell(std::size_t column, const Value& value) = 0;
    virtual void endRow() = 0;
    virtual void end() = 0;
    /// Texts that got a "'" in front.
    u64 guarded = 0;
};

std::unique_ptr<RowWriter> csvWriter(Output& out, const WriterOptions& options);
std::unique_ptr<RowWriter> tsvWriter(Output& out, const WriterOptions& options);
std::unique_ptr<RowWriter> jsonWriter(Output& out, const WriterOptions& options);
/// By the format.
std::unique_ptr<RowWriter> textWriter(Output& out, const WriterOptions& options);

/// A value as plain text, as CSV shows it without quotes: "base64:..." for bytes, "true", numbers
/// in their shortest form. Appended to out.
void putPlain(std::string& out, const Value& value);
/// Appends a text as a JSON string; on a terminal without control characters.
void putJsonString(std::string& out, std::string_view utf8, bool terminal);
/// Appends bytes in base64.
void putBase64(std::string& out, std::string_view bytes);
/// Stored digits as a JSON number.
void putJsonNumber(std::string& out, std::string_view digits);

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
    void number(std::string_view key, u64 value) { raw(key, std::to_string(value)); }
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

}  // namespace mira::tool
