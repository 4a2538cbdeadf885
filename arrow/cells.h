// Cells of a block of records into arrays, a column at a time.
//
// The plain rule reads every cell as all other outputs do (readCell) and turns the value into what
// the array holds. Where a cell is stored in the usual way, a quick way (quick.cpp) gives the same
// without it, or declines.
#pragma once

#include <string>
#include <vector>

#include "arrow/plan.h"
#include "arrow/records.h"
#include "arrow/vector.h"
#include "tables/value/value.h"

namespace mira::arrow {

/// What was met in the cells of a table: the faults of values, and numbers that became others.
struct Met {
    tables::Faults faults{};
    tables::FaultTally rounded{};
};

/// Cells of the table's records by the plain rule.
struct Cells {
    explicit Cells(tables::Table& of) : table(&of), reader(of) {}

    tables::Table* table;
    tables::CellReader reader;
    const Row* loaded = nullptr;  // the row whose bytes are in RecordBuffer
    std::string text{};
    Met met{};
    bool quickly = true;  // false: only the plain rule
};

/// Appends a column of the rows to an array. Throws CellFailure for a number that the column cannot
/// hold.
void appendCells(Cells& cells, const Field& field, const std::vector<Row>& rows, Vector& to);
/// One cell by the plain rule.
void appendCell(Cells& cells, const Field& field, const Row& row, Vector& to);

struct CellFailure : Failure {
    CellFailure(u32 of, const std::string& sentence)
        : Failure(MIRA_ARROW_NO_TABLE, sentence), record(of) {}
    u32 record;
};

/// Room for more entries in an array, all of them valid.
void prepareVector(const Field& field, std::size_t more, Vector& to);
/// Appends one text to so many rows.
void appendText(std::string_view text, std::size_t rows, Vector& to);

}  // namespace mira::arrow
