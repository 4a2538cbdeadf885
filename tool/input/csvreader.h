// Reading CSV and TSV, row by row, with the line that each row begins in.
#pragma once

#include <csv.h>

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tables.h"
#include "tables/page/codepage.h"
#include "tables/value/memo.h"

namespace mira::tool {

struct CsvOptions {
    char delimiter = ',';
    bool tsv = false;      ///< no quotes; \t, \n, \r and \\ stand for what they mean
    std::string codePage;  ///< empty: UTF-8
};

/// Cells are UTF-8 and last until the next row is read.
struct CsvCell {
    std::string_view text;
    bool quoted = false;  ///< an empty text in quotes
};
struct CsvRow {
    u64 line = 0;  ///< from 1
    std::vector<CsvCell> cells;
};

/// A file, or standard input for "-", that can be read again from its beginning.
class CsvReader {
public:
    /// Throws a Refusal.
    CsvReader(const std::string& name, const CsvOptions& options);
    ~CsvReader();
    CsvReader(const CsvReader&) = delete;

    /// False at the end. Throws a Refusal for an open quote, and for bytes that are not in the
    /// code page.
    bool next(CsvRow& row);
    /// Back to the beginning.
    void rewind();
    /// The same, with another delimiter.
    void rewind(char delimiter);
    /// Line ends in the whole input; reading goes back to the beginning.
    u64 countLines();
    const std::string& name() const { return name_; }

private:
    struct Span {
        std::size_t start, length;
        bool quoted;
    };
    static void takeCell(void* text, std::size_t length, void* reader);
    static void takeRow(int end, void* reader);
    std::string_view takeLine();
    void parseQuoted(std::string_view line);
    bool parseLine();
    bool fill();
    void parseTsv(std::string_view line);
    void give(CsvRow& row);

    std::string name_;
    CsvOptions options_;
    std::unique_ptr<CodePage> page_;
    File file_;
    csv_parser parser_{};
    std::vector<char> buffer_;
    std::size_t begin_ = 0, end_ = 0;  ///< what is not parsed yet
    bool fileEnded_ = false, finished_ = false;
    u64 line_ = 0, rowLine_ = 0;
    bool rowOpen_ = false, rowDone_ = false;
    std::size_t columns_ = 0;  ///< of the first row
    std::string cells_, decoded_;
    std::vector<Span> spans_;
};

}  // namespace mira::tool
