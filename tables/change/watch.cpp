#include "tables/change/watch.h"

#include <utility>

namespace mira::tables {
namespace {

std::function<void(u64, u64)>& watching() {
    static std::function<void(u64, u64)> watch;
    return watch;
}

}  // namespace

void watchUndoing(std::function<void(u64, u64)> watch) { watching() = std::move(watch); }

void tellUndoing(u64 done, u64 total) {
    if (watching()) watching()(done, total);
}

}  // namespace mira::tables
