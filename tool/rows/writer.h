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
    bool excel = false;    // a "'" before texts that a spreadsheet would take for a formula
    bool replace = false;  // in scripts: DROP TABLE IF EXISTS before CREATE TABLE
    bool schema = false;   // in scripts: CREATE TABLE only
};

struct Heading {
    std::string name;
    bool mayBeNull = false;          // an empty text is told from null
    const Column* column = nullptr;  // whose values stand there; null for any values
};

/// Rows to where they go: begin, then for every row a cell per column and endRow, then end.
class RowWriter {
public:
    virtual ~RowWriter() = default;
    virtual void begin(const std::vector<Heading>& headings) = 0;
    virtual void cell(std::size_t column, const Value& value) = 0;
    virtual void endRow() = 0;
    virtual void end() = 0;
    /// Writes what waits for more rows to come; those that follow wait for nothing.
    virtual void show() {}
    std::size_t columnsCut = 0;  ///< those that lines had no room for
    u64 guarded = 0;             ///< texts that got a "'" in front
    Fault fault = Fault::None;   ///< what is not kept of the cell just written
};

/// Which options mean something to a format.
enum FormatBits : u8 {
    kTakesLines = 1,      ///< --no-heading, --bom, --crlf
    kTakesDelimiter = 2,  ///< -d, --excel
    kTakesTables = 4,     ///< --replace: it holds several tables
    kRowsApart = 8,       ///< rows that follow each other need not know of each other
    kTakesDatabase = 16,  ///< --append, --exact: a file that may be there already; see Database
};

struct Format {
    const char* name;        ///< as -F takes it
    const char* extensions;  ///< of its files, parted by blanks; the first is the one written
    unsigned bits;
    /// Null for a database. A ScriptWriter where it takes tables.
    std::unique_ptr<RowWriter> (*make)(Output&, const WriterOptions&);
    bool has(FormatBits bit) const { return (bits & bit) != 0; }
};

using FormatWords = std::vector<std::pair<const char*, const Format*>>;
/// Those for files, and those for what is read at once: a table for eyes, the first of them, and
/// all that are text. The first is the default.
const FormatWords& fileFormats();
const FormatWords& shownFormats();
/// Both together.
const FormatWords& answerFormats();
/// The format with an extension, such as ".csv"; null when there is none, or more than one.
const Format* formatOfExtension(const std::string& extension);
/// The extension that its files get.
std::string extensionOf(const Format& format);
/// "csv, tsv or json"
std::string namesOf(const FormatWords& formats);

/// A value in JSON, digits as they are; a text for a terminal without control characters.
void putJsonValue(std::string& out, const Value& value, bool terminal);

}  // namespace mira::tool
