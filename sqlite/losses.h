// What could not be kept of the values that statements were given. SQLite asks for a value as
// often as it likes, so every cell counts once, as long as the table is connected.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "mira_sqlite.h"
#include "tables/value/value.h"

namespace mira::sql {

class Losses {
public:
    void add(tables::Fault fault, u32 record, const tables::Column& column);
    /// Tells, and forgets, those added since the last time.
    void tell(const std::string& path, const Host& host);

private:
    tables::Faults faults_{};
    std::map<std::pair<tables::Fault, const tables::Column*>, std::vector<bool>> cells_;
};

}  // namespace mira::sql
