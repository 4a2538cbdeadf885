// One surface under the fuzz engine. A property that does not hold ends the run by its exception.
#include "property.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const test::Surface& surface = test::MIRA_SURFACE;
    if (size > surface.limit) return 0;
    test::Input input(data, size);
    surface.check(input);
    return 0;
}
