#include "command/facts.h"

#include "select/records.h"

namespace mira::tool {

Facts factsOf(const Table& table, bool countRecords) {
    Facts facts = tables::factsOf(table);
    facts.counted = countRecords;
    if (!countRecords) return facts;
    eachRecord(table, [&](u32) {
        if (isDeleted(table)) ++facts.deleted;
        return true;
    });
    return facts;
}

}  // namespace mira::tool
