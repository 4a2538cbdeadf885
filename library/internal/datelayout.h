// Where the pieces of a date text stand, by DateFormat.
#pragma once

#include "mira.h"

namespace mira {

struct DateLayout {
    u8 year, month, day, hour, minute, second;
    u8 dateEnd, timeEnd;  ///< length of a date and of a date-time
};

inline constexpr DateLayout kDateLayouts[] = {
    {0, 4, 6, 8, 10, 12, 8, 14},    // yyyymmddhhmmss
    {6, 3, 0, 11, 14, 17, 10, 19},  // dd.mm.yyyy hh:mm:ss
    {6, 0, 3, 11, 14, 17, 10, 19},  // mm.dd.yyyy hh:mm:ss
    {0, 5, 8, 11, 14, 17, 10, 19},  // yyyy.mm.dd hh:mm:ss
};

/// Formats 1 to 3 have separators; every other one is read as digits.
inline const DateLayout& dateLayout(i32 dateFormat) {
    return kDateLayouts[dateFormat >= 1 && dateFormat <= 3 ? dateFormat : 0];
}

}  // namespace mira
