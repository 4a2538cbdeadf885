// What code pages are called: marks in headers, language drivers, spellings.
#pragma once

#include <string>
#include <string_view>

#include "mira.h"

namespace mira::tables {

/// The page of a mark, by the name that the C library or an own table has; null: no such mark.
const char* pageOfMark(u8 mark);
/// The mark to write for a page of that name; 0: none.
u8 markOfPage(std::string_view page);
/// The page of a language driver of a level-7 table; null: not known.
const char* pageOfDriver(std::string_view driver);
/// True for the drivers of Thai, which are listed with pages that have no Thai letters.
bool isThaiDriver(std::string_view driver);
/// The name that the C library or an own table has for a page of any spelling; empty: none can.
std::string pageOfSpelling(std::string_view spelling);

}  // namespace mira::tables
