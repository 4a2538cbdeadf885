// Columns whose cells are mostly stored in the usual way, without the plain rule.
#pragma once

#include "arrow/cells.h"

namespace mira::arrow {

/// Appends the cells of a column as appendCell does, which it calls for every cell that is stored
/// in an unusual way. False, and nothing done, for a column without a quick way.
bool appendQuickly(Cells& cells, const Field& field, const std::vector<Row>& rows, Vector& to);

}  // namespace mira::arrow
