#include "read/facts.h"

#include "select/records.h"

namespace mira::tool {

Facts factsOf(const Table& table, bool countRecords, Listing* listing) {
    Facts facts = tables::factsOf(table, listing);
    facts.counted = countRecords;
    if (!countRecords) return facts;
    addIndexes(table, true, facts);
    eachRecord(table, [&](u32) {
        if (isDeleted(table)) ++facts.deleted;
    });
    return facts;
}

}  // namespace mira::tool
