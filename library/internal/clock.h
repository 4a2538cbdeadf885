// Local time.
#pragma once

#include <time.h>  // tzset

#include <ctime>

namespace mira {

/// Broken-down local time, as the standard library counts it (years since 1900). False when the
/// time cannot be represented. Follows TZ at every call, which localtime_r need not do by itself.
inline bool localTime(std::time_t seconds, std::tm* local) {
    tzset();
    return localtime_r(&seconds, local) != nullptr;
}

}  // namespace mira
