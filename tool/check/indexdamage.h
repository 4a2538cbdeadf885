// Whether the index files beside a table agree with it.
#pragma once

#include "check/damage.h"

namespace mira::tool {

/// Reports tags that do not agree, damaged files, and as notes what cannot be compared. Overwrites
/// RecordBuffer; throws Stopped.
void checkIndexes(const Table& table, const Report& report);

}  // namespace mira::tool
