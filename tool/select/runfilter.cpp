#include "select/runfilter.h"

#include "tables/filter/filter.h"
#include "terminal/message.h"
#include "terminal/progress.h"
#include "terminal/status.h"

namespace mira::tool {

void applyFilter(Table& table, std::string_view filter, bool ignoreCase) {
    const LibraryFilter checked = checkedFilter(table, filter);
    for (const std::string& sentence : checked.notes) tell(sentence);
    Progress progress("filter " + table.path, reccount(table.base.get()));
    const auto goesOn = [&] {
        progress.add(1);
        return !stopped();
    };
    runFilter(table, checked, ignoreCase, goesOn);
    leaveIfStopped();
}

}  // namespace mira::tool
