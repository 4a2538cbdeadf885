#include "select/runfilter.h"

#include <cstring>

#include "tables/open/filter.h"
#include "tables/page/refusal.h"
#include "terminal/message.h"
#include "terminal/progress.h"
#include "terminal/status.h"

namespace mira::tool {
namespace {

thread_local const Table* foldedTable = nullptr;
thread_local Progress* filterProgress = nullptr;

int foldText(char* text, DbfBase* /*base*/, int /*mode*/) {
    foldCase(*foldedTable->page.page, {text, std::strlen(text)});
    return 0;
}

int afterRecord() {
    filterProgress->add(1);
    return stopped() ? 1 : 0;
}

}  // namespace

void applyFilter(Table& table, std::string_view filter, bool ignoreCase) {
    std::vector<std::string> notes;
    const std::string checked = checkedFilter(table, filter, &notes);
    for (const std::string& sentence : notes) tell(sentence);
    DbfBase* const base = table.base.get();
    base->TrimMode = 0;
    base->CaseInsensitive = ignoreCase ? 1 : 0;
    base->UpperCaseCallback = ignoreCase ? foldText : nullptr;
    foldedTable = &table;
    Progress progress("filter " + table.path, reccount(base));
    filterProgress = &progress;
    const bool done = set_filter(base, checked.c_str(), afterRecord) != nullptr;
    filterProgress = nullptr;
    base->CaseInsensitive = 0;
    leaveIfStopped();
    if (!done) refuse(table.path, ": the filter cannot be run: it is too long; try `mira query`");
}

}  // namespace mira::tool
