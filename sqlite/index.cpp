#include "index.h"

#include <algorithm>
#include <bit>
#include <functional>

namespace mira::sql {
namespace {

/// Numbers that are equal have one hash: that of the nearest double.
u64 hashOf(const Stored& value) {
    if (value.storage == Storage::Text || value.storage == Storage::Blob) {
        return std::hash<std::string_view>{}(value.bytes);
    }
    const double number =
        value.storage == Storage::Integer ? static_cast<double>(value.integer) : value.real;
    return std::bit_cast<u64>(number == 0 ? 0.0 : number);  // -0 is 0
}

}  // namespace

void KeyIndex::add(const Stored& value, u32 record) {
    if (value.storage != Storage::Null) entries_.push_back({hashOf(value), record});
}

void KeyIndex::finish() {
    std::sort(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
        return a.hash != b.hash ? a.hash < b.hash : a.record < b.record;
    });
    entries_.shrink_to_fit();
}

std::span<const KeyIndex::Entry> KeyIndex::find(const Stored& equal) const {
    const Entry wanted{hashOf(equal), 0};
    const auto range =
        std::equal_range(entries_.data(), entries_.data() + entries_.size(), wanted,
                         [](const Entry& a, const Entry& b) { return a.hash < b.hash; });
    return {range.first, range.second};
}

}  // namespace mira::sql
