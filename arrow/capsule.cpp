// Capsules of Python around streams and schemas. Their destructors run while exceptions are on
// their way, when no code in Python may run, so they stand here; of Python they need one function,
// which the module hands over.
#include <atomic>
#include <cstdlib>

#include "arrow/mira_arrow.h"

namespace {

using PointerOf = void* (*)(void*, const char*);

std::atomic<PointerOf> pointerOf = nullptr;

template <typename Held>
void destroy(void* capsule, const char* name) {
    const PointerOf ask = pointerOf.load();
    auto* const held = ask != nullptr ? static_cast<Held*>(ask(capsule, name)) : nullptr;
    if (held == nullptr) return;
    if (held->release != nullptr) held->release(held);
    std::free(held);
}

}  // namespace

void mira_arrow_capsules(void* (*pointer_of)(void*, const char*)) { pointerOf = pointer_of; }

void* mira_arrow_new(size_t size) { return std::calloc(1, size); }

void mira_arrow_destroy_stream(void* capsule) {
    destroy<ArrowArrayStream>(capsule, "arrow_array_stream");
}

void mira_arrow_destroy_schema(void* capsule) { destroy<ArrowSchema>(capsule, "arrow_schema"); }
