// Values as plain text.
#pragma once

#include <string>
#include <string_view>

#include "tables/value/value.h"

namespace mira::tables {

/// A value as plain text, as CSV shows it without quotes: "base64:..." for bytes, "true", numbers
/// in their shortest form. Appended to out.
void putPlain(std::string& out, const Value& value);
/// Appends bytes in base64.
void putBase64(std::string& out, std::string_view bytes);

}  // namespace mira::tables
