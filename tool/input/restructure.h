// Another structure for a table: what the user wants of it, and the new table's head.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "input/schema.h"
#include "tables.h"
#include "tables/change/alter.h"

namespace mira::tool {

struct Addition {
    std::string fields;  ///< as in a schema
    std::string after;   ///< a field; empty: at the end
};

struct Restructure {
    std::vector<Addition> added;
    std::vector<std::string> dropped;
    std::vector<std::string> renamed;  ///< OLD=NEW
    std::vector<std::string> typed;    ///< "FIELD N(12,2)"
    std::optional<TableKind> kind;
    std::string codePage;

    bool isEmpty() const {
        return added.empty() && dropped.empty() && renamed.empty() && typed.empty() && !kind &&
               codePage.empty();
    }
};

/// Plans it, and tells what the kind of table makes of fields. The head is made by way of the new
/// files of a swap, which are gone again then. Throws a Refusal.
Alteration planAlteration(Table& table, const Restructure& wanted, const Swap& swap);

}  // namespace mira::tool
