#include "check/memoloss.h"

#include "check/memodamage.h"
#include "select/records.h"
#include "tables/page/refusal.h"
#include "terminal/message.h"

namespace mira::tool {
namespace {

constexpr u64 kNamed = 20;  // memos that are told one by one

void lookAt(Table& table, const Report& report) {
    CellReader cells(table);
    MemoReferences memos = memoReferencesOf(table);
    Faults faults{};
    if (memos.columns.empty()) return;
    eachRecord(table, [&](u32 record) {
        cells.record = record;
        if (!isDeleted(table)) addReferences(memos, cells, report);
    });
    checkMemos(memos, cells, faults, report);
}

}  // namespace

u64 tellLostMemos(Table& table, bool mayDrop) {
    if (IsPackUnfinished(table.base.get()) == 1) return 0;
    u64 lost = 0;
    lookAt(table, [&](const Finding& finding) {
        if (!finding.loses || ++lost > kNamed) return;
        (mayDrop ? tell : tellError)(lineOf(table, finding));
    });
    if (lost > kNamed) {
        const std::string more =
            fmt::format("{}: and {} more; `mira check` tells them all", table.path, lost - kNamed);
        (mayDrop ? tell : tellError)(more);
    }
    if (lost != 0 && !mayDrop) {
        refuse(table.path, ": packing would lose or cut ", counted(lost, "memo"),
               ", so nothing is changed; --drop-memos packs all the same");
    }
    return lost;
}

}  // namespace mira::tool
