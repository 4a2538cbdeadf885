// What is known of a table without its values, for `info` and `tables`.
#pragma once

#include <string>
#include <vector>

#include "tables.h"
#include "tables/column/column.h"
#include "tables/index/index.h"
#include "tables/open/find.h"

namespace mira::tool {

/// An index file and what its tags hold.
struct IndexFacts {
    std::string path;
    std::string kind;       // "cdx"; empty when it cannot be read
    std::string fault;      // why not
    std::vector<Tag> tags;  // texts in UTF-8
    std::vector<u64> keys;  // entries of each
};

struct Facts {
    std::string updated;  // "2024-03-05"; empty when the header has no date
    u64 deleted = 0;
    bool hasMemos = false;
    std::string memoFile;  // empty: it is missing, or there is none to be
    u32 memoUnit = 0;
    u64 memoSize = 0;
    std::vector<std::string> indexFiles;
    std::vector<IndexFacts> indexes;
    bool indexFlag = false;  // header byte 28 says that there is a structural index
    std::vector<std::string> repairs;
};

/// Reads every record to count the deleted ones, and the index files, when countRecords is set.
Facts factsOf(Table& table, bool countRecords, Listing* listing = nullptr);

}  // namespace mira::tool
