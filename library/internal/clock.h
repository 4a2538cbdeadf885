// Local time.
#pragma once

#include <time.h>  // tzset

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace mira {

/// Lets localtime_r follow TZ, which it need not do by itself. tzset looks at files every time, so
/// it is called only when TZ has changed.
inline void followZone() {
    static thread_local char last[64] = "not asked yet";
    const char* zone = std::getenv("TZ");
    if (zone == nullptr) zone = "unset";  // no zone has that name
    if (std::strcmp(zone, last) == 0) return;
    tzset();
    std::snprintf(last, sizeof last, "%s", zone);  // one that is cut only costs time
}

/// Broken-down local time, as the standard library counts it (years since 1900). False when the
/// time cannot be represented.
inline bool localTime(std::time_t seconds, std::tm* local) {
    followZone();
    return localtime_r(&seconds, local) != nullptr;
}

}  // namespace mira
