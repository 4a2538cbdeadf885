// The memo step of packing.
#pragma once

#include "mira.h"

namespace mira {

/// Rebuilds the memo file, so that it holds only the memos that records refer to; the old one stays
/// under its "~" name. 1 also when there is no memo file, or it cannot take that name. drop:
/// records marked deleted are dropped as well, once it is certain that the memos can be copied.
int packMemos(DbfBase*, bool writable, bool drop);

/// Gives the records the references that an earlier rebuild, which failed or was killed, did not
/// come to write. 1 when there is none.
int finishPackMemos(DbfBase*, bool writable);

}  // namespace mira
