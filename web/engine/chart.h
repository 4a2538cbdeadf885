// What a chart of a column draws: counts over all shown records.
#pragma once

#include <string>

#include "tables/column/column.h"
#include "view.h"

namespace mira::page {

/// A JSON object: "kind" (numbers, dates, texts), "count" of values, "blank" ones, "least" and
/// "most", of numbers "sum", "bars" of a label or a range and how many, "different" texts.
std::string chartOf(tables::Table& table, const View& view, const tables::Column& column);

}  // namespace mira::page
