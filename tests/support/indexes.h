// Compound index files laid out byte by byte.
#pragma once

#include <vector>

#include "support/bytes.h"

namespace test {

constexpr unsigned kIndexPage = 512;

struct Entry {
    std::string key;
    u32 record;
    bool operator==(const Entry&) const = default;
};
struct TagBytes {
    std::string name = "", expression = "", condition = "";
    std::vector<Entry> entries = {};
    unsigned options = 0x60, kind = 0;
    std::string collation = "";
};

inline std::string leafOf(const std::vector<Entry>& entries, unsigned kind,
                          u32 right = 0xFFFFFFFF) {
    // Counts of 8 bits each and records of 24: five bytes an entry, nothing left out of keys.
    std::string places, texts;
    for (const Entry& entry : entries) {
        places += le(entry.record, 3) + "\0\0"s;
        texts.insert(0, entry.key);
    }
    const std::string head = le(kind, 2) + le(entries.size(), 2) + le(0xFFFFFFFF, 4) +
                             le(right, 4) + le(0, 2) + le(0xFFFFFF, 4) +
                             "\xFF\xFF\x18\x08\x08\x05"s + places;
    return padded(head, kIndexPage - texts.size(), 0) + texts;
}

inline std::string cdxHeader(u64 root, unsigned keyLength, const TagBytes& tag) {
    const std::string pool = tag.expression + '\0' + tag.condition + '\0';
    std::string head =
        le(root, 4) + le(0, 8) + le(keyLength, 2) + le(tag.options, 1) + le(tag.kind, 1);
    head = padded(head, 494, 0) + padded(tag.collation, 8, 0) + le(0, 2);
    head += le(tag.expression.size() + 1, 2) + le(tag.condition.size() + 1, 2) + le(0, 2) +
            le(tag.expression.size() + 1, 2);
    return padded(head + pool, 1024, 0);
}

/// A compound index: directory, then every tag with its header and one leaf, or with an inner page
/// over a leaf per entry.
inline std::string cdxOf(const std::vector<TagBytes>& tags, bool deep = false) {
    std::vector<Entry> names;
    std::string rest;
    const std::size_t start = 1024 + kIndexPage;
    for (const TagBytes& tag : tags) {
        const auto keyLength =
            static_cast<unsigned>(tag.entries.empty() ? 4 : tag.entries[0].key.size());
        const std::size_t place = start + rest.size(), root = place + 1024;
        names.push_back({padded(tag.name, 10), static_cast<u32>(place)});
        rest += cdxHeader(root, keyLength, tag);
        if (!deep) {
            rest += leafOf(tag.entries, 3);
            continue;
        }
        std::string inner = le(1, 2) + le(tag.entries.size(), 2) + le(~0ULL, 8), leaves;
        for (std::size_t i = 0; i < tag.entries.size(); ++i) {
            const std::size_t leaf = root + kIndexPage * (i + 1);
            const bool last = i + 1 == tag.entries.size();
            inner += tag.entries[i].key + be(tag.entries[i].record, 4) + be(leaf, 4);
            leaves += leafOf({tag.entries[i]}, 2,
                             last ? 0xFFFFFFFF : static_cast<u32>(leaf + kIndexPage));
        }
        rest += padded(inner, kIndexPage, 0) + leaves;
    }
    return cdxHeader(1024, 10, {.options = 0xE0}) + leafOf(names, 3) + rest;
}

/// The entries of a tag whose header stands at a place, with duplicate and trailing counts of the
/// same width.
inline std::vector<Entry> entriesAt(std::string_view file, u64 header, char filler) {
    const u64 length = load(file, header + 12, 2);
    u64 place = load(file, header, 4);
    while ((load(file, place, 2) & 2) == 0) place = load(file, place + 12 + length + 4, 4, true);
    std::vector<Entry> entries;
    for (; place != 0xFFFFFFFF; place = load(file, place + 8, 4)) {
        const auto bits = static_cast<unsigned>(load(file, place + 20, 1));
        const auto counts = static_cast<unsigned>(load(file, place + 21, 1));
        const u64 step = load(file, place + 23, 1);
        std::string key;
        u64 end = place + kIndexPage;
        for (u64 i = 0; i < load(file, place + 2, 2); ++i) {
            const u64 entry = load(file, place + 24 + i * step, static_cast<unsigned>(step));
            const u64 same = entry >> bits & ((1U << counts) - 1),
                      cut = entry >> (bits + counts) & ((1U << counts) - 1);
            end -= length - same - cut;
            key = key.substr(0, same) + std::string(file.substr(end, length - same - cut));
            key.resize(length, filler);
            entries.push_back({key, static_cast<u32>(entry & ((1ULL << bits) - 1))});
        }
    }
    return entries;
}

}  // namespace test
