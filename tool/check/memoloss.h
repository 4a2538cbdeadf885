// Memos that rebuilding a memo file would lose or cut.
#pragma once

#include "tables.h"
#include "tables/column/column.h"

namespace mira::tool {

/// Looks at the memos of all records that are not marked deleted, as `mira check` does, and tells
/// those that a rebuilt memo file would not hold whole: references that lead to no memo, memos that
/// go on after their end mark or past the end of the file. How many there are. Throws a Refusal
/// when there are some and mayDrop is not set. Overwrites the record buffer. A memo file whose pack
/// was interrupted is not looked at: finishing comes first.
u64 tellLostMemos(Table& table, bool mayDrop);

}  // namespace mira::tool
