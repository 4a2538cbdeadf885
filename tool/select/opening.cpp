#include "select/opening.h"

#include <filesystem>

#include "tables/open/find.h"
#include "tables/open/open.h"
#include "terminal/message.h"

namespace mira::tool {

void tellRecovery(const Recovery& recovery) {
    if (recovery.found == Found::Recovered) tellError(recovery.sentence);
    if (recovery.found == Found::Left) tell(recovery.sentence);
}

std::unique_ptr<Table> openToRead(const std::string& name, const TableOptions& options,
                                  Listing* listing) {
    tellRecovery(recoverNamed(name));
    return openTable(name, options, listing);
}

namespace {
void recoverFolders(const std::vector<std::string>& names, bool recursive) {
    for (const std::string& name : names) {
        std::error_code ignored;
        if (!std::filesystem::is_directory(name, ignored)) continue;
        for (const Recovery& recovery : recoverIn(name, recursive)) {
            // What was left is told when the table is opened.
            if (recovery.found == Found::Recovered) tellRecovery(recovery);
        }
    }
}
}  // namespace

std::vector<std::string> findToRead(const std::vector<std::string>& names, bool recursive,
                                    Listing* listing) {
    recoverFolders(names, recursive);
    return findTables(names, recursive, listing);
}

std::vector<FoundTable> findWithFoldersToRead(const std::vector<std::string>& names, bool recursive,
                                              Listing* listing) {
    recoverFolders(names, recursive);
    return findWithFolders(names, recursive, listing);
}

}  // namespace mira::tool
