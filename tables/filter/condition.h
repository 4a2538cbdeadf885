// One condition of a filter: what the user can mean by it, and how the library is told.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tables/column/column.h"
#include "tables/value/value.h"

namespace mira::tables {

/// A condition as it is written: FIELD SIGN RIGHT.
struct FilterCondition {
    const Column* column;
    std::string_view text;   ///< all of it
    std::string_view sign;   ///< "=", "<>" and so on
    std::string_view right;  ///< what follows, blanks included
    bool spaced = false;     ///< a blank before the sign: the one behind it is no part of a text
};

/// What a filter cannot ask the library: whether a field is blank, true or false, which number the
/// record has. The answer is put into a field of one character that the record gets for the time of
/// the filter.
struct FieldTest {
    enum class Asked : u8 { Blank, True, False, Record };
    Column column;
    Asked asked;
    bool wanted;
    std::string name;         ///< of that field; "1" where the answer is the wanted one
    u64 first = 0, last = 0;  ///< numbers, from 1, that answer Record
};

/// Whether the current record passes.
bool passes(CellReader& cells, const FieldTest& test);

/// The condition as the library takes it. What it needs tested, and sentences about what is hardly
/// meant, are added. Throws a Refusal for what would silently mean something else.
std::string libraryCondition(const Table& table, const FilterCondition& condition,
                             std::vector<FieldTest>& tests, std::vector<std::string>& notes);

}  // namespace mira::tables
