// What is known of a table without its values.
#pragma once

#include <string>
#include <vector>

#include "tables/column/column.h"

namespace mira::tables {

struct Facts {
    std::string updated;   // "2024-03-05"; empty when the header has no date
    u64 deleted = 0;       // records marked deleted
    bool counted = false;  // whether somebody has counted them
    bool hasMemos = false;
    std::string memoFile;  // empty: it is missing, or there is none to be
    u32 memoUnit = 0;
    u64 memoSize = 0;
    std::vector<std::string> indexFiles;
    bool indexFlag = false;  // header byte 28 says that there is a structural index
    std::vector<std::string> repairs;
};

/// Reads no record.
Facts factsOf(const Table& table);

/// "Character"; "Varchar" and "Picture" are names of our own.
std::string typeName(const Table& table, const Column& column);

/// All of it as a JSON object. Next values are those of the columns.
std::string factsJson(const Table& table, const Facts& facts);

}  // namespace mira::tables
