// Where the pieces of a date text stand, by DateFormat.
#pragma once

#include <cstddef>

#include "mira.h"

namespace mira {

inline constexpr std::size_t kDateDigits = 8;       // yyyymmdd
inline constexpr std::size_t kDateTimeDigits = 14;  // yyyymmddhhmmss
inline constexpr std::size_t kDottedDate = 10;      // with separators
inline constexpr std::size_t kDottedDateTime = 19;

// Dates and moments as digits, for printf.
inline constexpr char kDatePattern[] = "%04d%02d%02d";
inline constexpr char kMomentPattern[] = "%04d%02d%02d%02d%02d%02d";

struct DateLayout {
    u8 year, month, day, hour, minute, second;
    std::size_t dateEnd, timeEnd;  ///< length of a date and of a date-time
};

inline constexpr DateLayout kDateLayouts[] = {
    {0, 4, 6, 8, 10, 12, kDateDigits, kDateTimeDigits},   // yyyymmddhhmmss
    {6, 3, 0, 11, 14, 17, kDottedDate, kDottedDateTime},  // dd.mm.yyyy hh:mm:ss
    {6, 0, 3, 11, 14, 17, kDottedDate, kDottedDateTime},  // mm.dd.yyyy hh:mm:ss
    {0, 5, 8, 11, 14, 17, kDottedDate, kDottedDateTime},  // yyyy.mm.dd hh:mm:ss
};

/// Formats 1 to 3 have separators; every other one is read as digits.
inline const DateLayout& dateLayout(i32 dateFormat) {
    return kDateLayouts[dateFormat >= 1 && dateFormat <= 3 ? dateFormat : 0];
}

}  // namespace mira
