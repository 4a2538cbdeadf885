// Arithmetic texts.
#include <bit>
#include <cmath>

#include "property.h"
#include "support/reference.h"

namespace test {
namespace {

void check(Input& input) {
    const std::string text = input.rest();
    const std::optional<double> expected = arithmetic(text);
    std::string after = text;
    for (char& c : after) c = expected && c >= 'a' && c <= 'z' ? static_cast<char>(c - 0x20) : c;
    Exact given(text);
    int status = 5;
    const double value = Evaluate(given, &status), wanted = expected.value_or(0.0);
    CHECK_EQUAL(status, expected ? 5 : 0);
    CHECK_EQUAL(given.view(), after);
    CHECK(std::bit_cast<u64>(value) == std::bit_cast<u64>(wanted) ||
          (std::isnan(value) && std::isnan(wanted)));
}

}  // namespace

const Surface kArithmetic{"arithmetic", check, 100};

}  // namespace test
