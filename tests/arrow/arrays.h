// Arrow streams as a consumer reads them, and what a table's cells are by the one reader of the
// tables, both as plain text. The rules for numbers and days are told once more here, without the
// code of the streams.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "arrow/mira_arrow.h"

namespace test {

/// A stream read to its end or its error.
struct Read {
    int opened = 0;  ///< what opening returned
    std::string error{};
    std::vector<std::string> names{}, formats{};
    std::vector<std::vector<std::string>> rows{};
    std::string report{};
};

/// Options with their size, and as many batches as is good for tests.
MiraArrowOptions arrowOptions();

/// Opens and reads a table. Throws std::runtime_error for an array that is none: lengths, ends of
/// texts, counts of nulls, texts that are no UTF-8.
Read readStream(const std::string& path, const MiraArrowOptions& options);

/// What readStream has to give: the rows by the reader of the tables. An error ends the rows; it
/// is "record N, field F" here.
Read readTable(const std::string& path, const MiraArrowOptions& options);

/// Throws std::runtime_error when stream and table differ, or the table cut at a record and read
/// in two ranges.
void checkStream(const std::string& path, MiraArrowOptions options, std::uint64_t cut);

}  // namespace test
