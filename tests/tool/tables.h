// Tables laid byte by byte for the sessions: what real tables do to a reader.
#pragma once

#include <string>

namespace test {

/// Writes them into a folder.
void layTables(const std::string& folder);

}  // namespace test
