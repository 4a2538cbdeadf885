// Facts that take reading every record.
#pragma once

#include "tables.h"
#include "tables/open/facts.h"

namespace mira::tool {

/// With countRecords deleted ones are counted. Throws a Refusal, or Stopped.
Facts factsOf(const Table& table, bool countRecords);

}  // namespace mira::tool
