// Rows of another command into a new table.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "command/changeoptions.h"
#include "input/schema.h"
#include "terminal/status.h"

namespace mira::tool {

struct RowsToImport {
    std::string csv;  ///< as exports write it, with headings
    std::string table;
    TableKind kind = TableKind::DBase3;
    std::string codePage;    ///< empty: one that holds all letters
    bool fixedPage = false;  ///< no other one will do
    /// A better field for a column, from 0, than the one that its values suggest; may be none.
    std::function<std::optional<FieldPlan>(std::size_t, const FieldPlan&)> better;
};
/// Makes the table. Throws a Refusal: it is there, a value does not fit.
Status importRows(const RowsToImport& rows, const ChangeOptions& change);

}  // namespace mira::tool
