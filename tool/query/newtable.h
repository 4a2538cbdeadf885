// The answer of a statement as a new table.
#pragma once

#include <string>
#include <vector>

#include "rows/output.h"
#include "rows/writer.h"
#include "sqlite/answer.h"
#include "tables/unpack/nameless.h"
#include "write/import.h"

namespace mira::tool {

/// Rows wait in a file without a name until all are there, as the fields of what comes from no
/// table are chosen by all its values.
class NewTableRows final : public RowWriter {
public:
    /// The kind and the code page of the first table that a column comes from, where none is given.
    NewTableRows(const sql::Answer& answer, std::optional<TableKind> kind, std::string codePage);

    void begin(const std::vector<Heading>& headings) override { csv_->begin(headings); }
    void cell(std::size_t column, const Value& value) override;
    void endRow() override { csv_->endRow(); }
    void end() override {}
    /// Makes the table. Throws a Refusal.
    Status make(const std::string& table, const ChangeOptions& change);

private:
    /// What the values of a column were.
    struct Seen {
        bool text = false, real = false, negative = false;
        bool huge = false;            ///< a number that no field of digits holds
        int whole = 1, decimals = 0;  ///< digits of numbers
        std::size_t longest = 0;      ///< bytes of a text
    };
    Value rounded(Seen& seen, const Value& value);
    std::optional<FieldPlan> fieldOf(std::size_t column, const FieldPlan& suggested) const;

    const sql::Answer& answer_;
    const sql::KnownTable* first_;
    TableKind kind_;
    std::string codePage_;
    std::vector<Seen> seen_;
    std::string digits_;
    NamelessFile file_;
    Output out_;
    std::unique_ptr<RowWriter> csv_;
};

}  // namespace mira::tool
