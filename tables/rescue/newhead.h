// The header of the new table.
#pragma once

#include <string>

#include "tables/rescue/reading.h"

namespace mira::tables {

/// The fixed header. One that has lost or got bytes is put right where its numbers agree best.
std::string fixedHeader(Source& source, const List& list);
/// The whole header, up to record 0, with a count of 0.
std::string headOf(Source& source, const List& list, const Reading& reading,
                   const std::string& fixed);

}  // namespace mira::tables
