// Rows in every format there is. What a table, a query or any other source of values gives.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "rows/output.h"
#include "tables.h"
#include "tables/page/json.h"
#include "tables/value/plain.h"
#include "tables/value/value.h"

namespace mira::tool {

struct WriterOptions {
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

/// Rows to where they go: begin, then for every row a cell per column and endRow, then end.
class RowWriter {
public:
    virtual ~RowWriter() = default;
    virtual void begin(const std::vector<Heading>& headings) = 0;
    virtual void cell(std::size_t column, const Value& value) = 0;
    virtual void endRow() = 0;
    virtual void end() = 0;
    u64 guarded = 0;       ///< texts that got a "'" in front
    bool rounded = false;  ///< the cell just written says more than is kept of it
};

/// Which options mean something to a format.
enum FormatBits : u8 {
    kTakesLines = 1,      ///< --no-heading, --bom, --crlf
    kTakesDelimiter = 2,  ///< -d, --excel
    kTakesTables = 4,     ///< --replace, --append, --exact: it holds several tables
    kRowsApart = 8,       ///< rows that follow each other need not know of each other
};

struct Format {
    const char* name;        ///< as -F takes it
    const char* extensions;  ///< of its files, parted by blanks; the first is the one written
    unsigned bits;
    std::unique_ptr<RowWriter> (*make)(Output&, const WriterOptions&);  ///< null: see Database
    bool has(FormatBits bit) const { return (bits & bit) != 0; }
};

// A format is a row in formats.cpp and its writer.
std::unique_ptr<RowWriter> csvWriter(Output& out, const WriterOptions& options);
std::unique_ptr<RowWriter> tsvWriter(Output& out, const WriterOptions& options);
std::unique_ptr<RowWriter> jsonWriter(Output& out, const WriterOptions& options);
std::unique_ptr<RowWriter> jsonLinesWriter(Output& out, const WriterOptions& options);
std::unique_ptr<RowWriter> gridWriter(Output& out, const WriterOptions& options);

using FormatWords = std::vector<std::pair<const char*, const Format*>>;
/// Those for files, and those for what is read at once: a table for eyes, the first of them, and
/// all that are text. The first is the default.
const FormatWords& fileFormats();
const FormatWords& shownFormats();
/// The format with an extension, such as ".csv"; null when there is none.
const Format* formatOfExtension(const std::string& extension);
/// The extension that its files get.
std::string extensionOf(const Format& format);
/// "csv, tsv or json"
std::string namesOf(const FormatWords& formats);

/// Stored digits as a JSON number.
void putJsonNumber(std::string& out, std::string_view digits);

}  // namespace mira::tool
