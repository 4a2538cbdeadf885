// Reading CSV and TSV, row by row, with the line that each row begins in.
#pragma once

#include <array>
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

    /// False at the end. Throws a Refusal for an open quote, a lone one in a quoted text, and for
    /// bytes that are not in the code page.
    bool next(CsvRow& row);
    /// Back to the beginning.
    void rewind();
    /// The same, with another delimiter.
    void rewind(char delimiter);
    /// Line ends in the whole input; reading goes back to the beginning.
    u64 countLines();
    const std::string& name() const { return name_; }
    /// What messages call it.
    void rename(const std::string& name) { name_ = name; }

private:
    /// A cell; places count from the beginning of the row.
    struct Span {
        std::size_t start, length;
        bool quoted;
    };
    bool fill();
    int byteAt(std::size_t at);
    std::size_t findEnd(std::size_t from);
    std::size_t findQuote(std::size_t from);
    std::size_t moveTo(std::size_t to, std::size_t from, std::size_t end);
    void takeCell();
    void takeQuoted();
    void takeEscaped();
    void takeRow();
    void give(CsvRow& row);

    std::string name_;
    CsvOptions options_;
    std::unique_ptr<CodePage> page_;
    File file_;
    std::array<bool, 256> ends_{};  ///< the bytes that end a cell without quotes
    std::vector<char> buffer_;
    std::size_t begin_ = 0, end_ = 0;  ///< the row, and what is read after it
    std::size_t used_ = 0;             ///< bytes of the row taken so far
    bool fileEnded_ = false;
    u64 line_ = 0, rowLine_ = 0;
    std::size_t columns_ = 0;  ///< of the first row
    std::string decoded_;
    std::vector<Span> spans_;
};

}  // namespace mira::tool
