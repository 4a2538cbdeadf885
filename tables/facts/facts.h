// What is known of a table without its values.
#pragma once

#include <string>
#include <vector>

#include "tables/column/column.h"
#include "tables/index/index.h"
#include "tables/open/find.h"

namespace mira::tables {

/// An index file and what its tags hold.
struct IndexFacts {
    std::string path;
    std::string kind;       // "cdx"; empty when it cannot be read
    std::string fault;      // why not
    std::vector<Tag> tags;  // texts in UTF-8
    std::vector<u64> keys;  // entries of each; empty when nobody has counted them
};

struct Facts {
    std::string updated;   // "2024-03-05"; empty when the header has no date
    u64 deleted = 0;       // records marked deleted
    bool counted = false;  // whether somebody has counted them
    bool hasMemos = false;
    std::string memoFile;  // empty: it is missing, or there is none to be
    u32 memoUnit = 0;
    u64 memoSize = 0;
    std::vector<std::string> indexFiles;
    std::vector<IndexFacts> indexes;
    bool indexFlag = false;  // header byte 28 says that there is a structural index
    std::vector<std::string> repairs;
};

/// Reads no record and no index file.
Facts factsOf(const Table& table, Listing* listing = nullptr);
/// Adds what the index files hold; those that cannot be read have a fault. With withKeys all their
/// pages are read.
void addIndexes(const Table& table, bool withKeys, Facts& facts);

/// "Character"; "Varchar" and "Picture" are names of our own.
std::string typeName(const Table& table, const Column& column);

/// All of it as a JSON object. Next values are those of the columns.
std::string factsJson(const Table& table, const Facts& facts);

}  // namespace mira::tables
