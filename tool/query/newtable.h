// The answer of a statement as a new table.
#pragma once

#include <string>
#include <vector>

#include "query/answer.h"
#include "rows/output.h"
#include "rows/writer.h"
#include "tables/archive/nameless.h"
#include "write/import.h"

namespace mira::tool {

/// Rows wait in a file without a name until all are there, as the fields of what comes from no
/// table are chosen by all its values.
class NewTableRows final : public RowWriter {
public:
    explicit NewTableRows(const Answer& answer);

    void begin(const std::vector<Heading>& headings) override { csv_->begin(headings); }
    void cell(std::size_t column, const Value& value) override;
    void endRow() override { csv_->endRow(); }
    void end() override {}
    /// Makes the table; of the kind and in the page of the first table that a column comes from,
    /// unless a kind or a page is given. Throws a Refusal.
    Status make(const std::string& table, std::optional<TableKind> kind,
                const std::string& codePage, const ChangeOptions& change);

private:
    /// What the values of a column were.
    struct Seen {
        bool text = false;
        std::size_t longest = 0;  ///< bytes of a text
    };
    std::optional<FieldPlan> fieldOf(std::size_t column, const FieldPlan& suggested,
                                     TableKind kind) const;

    const Answer& answer_;
    std::vector<Seen> seen_;
    NamelessFile file_;
    Output out_;
    std::unique_ptr<RowWriter> csv_;
};

}  // namespace mira::tool
