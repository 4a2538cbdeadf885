// A table while its records become arrays: opened, its columns chosen, the wanted records appended
// block by block, and what was met told at the end.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "arrow/cells.h"
#include "arrow/plan.h"
#include "arrow/records.h"

namespace mira::arrow {

/// Arrays of more bytes end before they have the usual number of rows.
constexpr std::size_t kBatchBytes = std::size_t{8} << 20;

/// Opens a table as a stream does: codePage may be null, and no change may have been interrupted.
/// Throws a Failure or a Refusal.
std::unique_ptr<tables::Table> openFor(const char* name, const char* codePage, bool longNames);

struct Part {
    Part(std::unique_ptr<tables::Table> opened, const MiraArrowOptions& options)
        : table(std::move(opened)),
          fields(fieldsOf(*table, options)),
          records(*table, options),
          cells(*table) {}

    std::unique_ptr<tables::Table> table;
    std::vector<Field> fields;
    Records records;
    Cells cells;
};

/// Throws a Failure that names both tables when the part's columns are not those.
void demandFields(const Part& part, const std::vector<Field>& fields, const std::string& first);

/// Appends the rows of a block to every column; of several failures the one of the first record is
/// thrown.
void appendBlock(Part& part, std::vector<Vector>& vectors);
std::size_t bytesOf(const std::vector<Vector>& vectors);

/// What became null or another value, all of one kind.
struct ToldFault {
    std::string kind;  // "no_date", "rounded"
    u64 count = 0;
    u64 record = 0;  // the first, from 1
    std::string field;
    std::string what;  // "2 numbers rounded"
};
std::vector<ToldFault> faultsOf(const Met& met);
/// "people.dbf: 2 numbers rounded, first in record 7, field DOSIS"
std::string sentenceOf(const std::string& path, const ToldFault& fault);
/// What is odd about a table, a sentence each.
std::vector<std::string> notesOf(const tables::Table& table);

}  // namespace mira::arrow
