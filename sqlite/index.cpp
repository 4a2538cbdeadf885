#include "index.h"

#include <algorithm>
#include <bit>
#include <functional>

namespace mira::sql {
namespace {

/// Numbers that are equal have one hash: that of the nearest double.
u64 hashOf(int type, i64 integer, double real, std::string_view bytes) {
    if (type == SQLITE_TEXT || type == SQLITE_BLOB) return std::hash<std::string_view>{}(bytes);
    const double number = type == SQLITE_INTEGER ? static_cast<double>(integer) : real;
    return std::bit_cast<u64>(number == 0 ? 0.0 : number);  // -0 is 0
}

}  // namespace

void KeyIndex::add(const Stored& value, u32 record) {
    if (value.type == SQLITE_NULL) return;
    entries_.push_back({hashOf(value.type, value.integer, value.real, value.bytes), record});
}

void KeyIndex::finish() {
    std::sort(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
        return a.hash != b.hash ? a.hash < b.hash : a.record < b.record;
    });
    entries_.shrink_to_fit();
}

std::span<const KeyIndex::Entry> KeyIndex::find(const Shortcut& equal) const {
    const Entry wanted{hashOf(equal.type, equal.integer, equal.real, equal.text), 0};
    const auto range =
        std::equal_range(entries_.begin(), entries_.end(), wanted,
                         [](const Entry& a, const Entry& b) { return a.hash < b.hash; });
    return {range.first, range.second};
}

}  // namespace mira::sql
