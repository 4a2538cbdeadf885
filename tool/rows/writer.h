// Rows as text: CSV, TSV, JSON. What a table, a query or any other source of values gives.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "rows/output.h"
#include "tables.h"
#include "tables/page/json.h"
#include "tables/value/plain.h"
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

/// Stored digits as a JSON number.
void putJsonNumber(std::string& out, std::string_view digits);

}  // namespace mira::tool
