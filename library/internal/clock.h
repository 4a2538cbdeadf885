// Local time, per thread.
#pragma once

#include <ctime>

namespace mira {

/// Broken-down local time, as the standard library counts it (years since 1900). False when the
/// time cannot be represented.
inline bool localTime(std::time_t seconds, std::tm* local) {
    return localtime_r(&seconds, local) != nullptr;
}

}  // namespace mira
