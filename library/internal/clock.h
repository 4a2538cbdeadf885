// Local time.
#pragma once

#include <time.h>  // tzset

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace mira {

/// Broken-down local time, as the standard library counts it (years since 1900). Follows TZ. False
/// when the time cannot be represented.
inline bool localTime(std::time_t seconds, std::tm* local) {
    tzset();  // localtime_r need not do it
    return localtime_r(&seconds, local) != nullptr;
}

/// The same of now. tzset looks at files, so what was found is kept for as long as it holds: TZ and
/// the second are the same.
inline bool localTimeNow(std::tm* local) {
    struct Kept {
        std::time_t second = -1;
        char zone[64];
        std::tm local;
    };
    static thread_local Kept kept;
    const std::time_t now = std::time(nullptr);
    const char* zone = std::getenv("TZ");
    if (zone == nullptr) zone = "unset";  // no zone has that name
    if (kept.second != now || std::strcmp(kept.zone, zone) != 0) {
        if (!localTime(now, &kept.local)) return false;
        // One that is cut is found anew every time.
        std::snprintf(kept.zone, sizeof kept.zone, "%s", zone);
        kept.second = now;
    }
    *local = kept.local;
    return true;
}

}  // namespace mira
