// Opening tables by the names that a user gives, with what an interrupted change has left put right
// first, and told.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tables.h"
#include "tables/change/recovery.h"
#include "tables/column/column.h"
#include "tables/open/find.h"

namespace mira::tool {

/// What has been put right is told also when quiet.
void tellRecovery(const Recovery& recovery);
/// openTable. Throws a Refusal.
std::unique_ptr<Table> openToRead(const std::string& name, const TableOptions& options,
                                  Listing* listing = nullptr);
/// findTables. Throws a Refusal.
std::vector<std::string> findToRead(const std::vector<std::string>& names, bool recursive,
                                    Listing* listing = nullptr);
/// findWithFolders. Throws a Refusal.
std::vector<FoundTable> findWithFoldersToRead(const std::vector<std::string>& names, bool recursive,
                                              Listing* listing);

}  // namespace mira::tool
