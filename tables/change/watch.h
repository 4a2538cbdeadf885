// Whoever wants to see how far the way back is: a change that is undone, by itself or after an
// interruption.
#pragma once

#include <functional>

#include "mira.h"

namespace mira::tables {

/// Has watch called with the bytes put back so far and those in all, and with 0 of 0 when all are;
/// it must not throw. One for the whole program, set before there are threads.
void watchUndoing(std::function<void(u64 done, u64 total)> watch);
void tellUndoing(u64 done, u64 total);

}  // namespace mira::tables
