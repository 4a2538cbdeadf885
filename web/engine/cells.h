// Values on their way to the page, as JSON and as CSV.
#pragma once

#include <string>
#include <string_view>

#include "tables/column/column.h"
#include "tables/value/value.h"

namespace mira::page {

/// Appends a value: null; a text; or an object, {"t": text, and "n": its bytes when it is cut or
/// binary, "b": the kind of picture, or "" for other bytes, "f": what is wrong with it}.
void putCell(std::string& json, const tables::Value& value);
/// "png" and so on; empty for what is no picture that browsers show.
std::string_view pictureKind(std::string_view bytes);

/// Appends a value to a line of CSV, as `mira export` writes it.
void putCsv(std::string& csv, const tables::Value& value, bool mayBeNull);
void putCsvText(std::string& csv, std::string_view text);

}  // namespace mira::page
