// Facts that take reading every record and every index.
#pragma once

#include "tables.h"
#include "tables/facts/facts.h"

namespace mira::tool {

/// With countRecords deleted ones are counted, and index files read. Throws a Refusal, or Stopped.
Facts factsOf(const Table& table, bool countRecords, Listing* listing = nullptr);

}  // namespace mira::tool
