// The table is read once and leaves a hash of the key of every record, eight bytes each; then the
// entries are gone through and compared with these. Two keys of one hash, one in 2^64, would pass
// for one.
#include "tables/index/compare.h"

#include <algorithm>
#include <string_view>
#include <unordered_set>

#include "tables/index/key.h"
#include "tables/page/text.h"

namespace mira::tables {
namespace {

constexpr u64 kNoEntry = 0;

u64 hashOf(std::string_view key) {
    const u64 hash = std::hash<std::string_view>{}(key);
    return hash == kNoEntry ? 1 : hash;
}

/// What stands in the index for every record, by the table.
std::vector<u64> expectedKeys(const Table& table, const index::KeyRule& rule, bool unique) {
    std::vector<u64> expected;
    std::unordered_set<u64> taken;
    const u32 count = reccount(table.base.get());
    std::string key;
    for (u32 record = 0; record < count; ++record) {
        readRecord(table, record);
        u64 hash = kNoEntry;
        if (isIndexed(table, rule, record + 1)) {
            makeKey(table, rule, record + 1, key);
            hash = hashOf(key);
            if (unique && !taken.insert(hash).second) hash = kNoEntry;
        }
        expected.push_back(hash);
    }
    return expected;
}

struct Comparison {
    const index::KeyRule& rule;
    bool isDescending;  // the largest key comes first
    std::vector<u64> expected;
    std::vector<bool> seen;
    std::string before{};
    TagReport report{};
};

void takeEntry(Comparison& comparison, std::string_view stored, u32 record) {
    TagReport& report = comparison.report;
    const std::string key = comparable(comparison.rule, stored);
    const int order = report.keys++ == 0 ? 0 : comparison.before.compare(key);
    if (comparison.isDescending ? order < 0 : order > 0) report.unordered.add(record);
    comparison.before = key;
    const std::size_t slot = std::size_t{record} - 1;
    if (record == 0 || slot >= comparison.expected.size() ||
        comparison.expected[slot] == kNoEntry || comparison.seen[slot]) {
        return report.tooMany.add(record);
    }
    comparison.seen[slot] = true;
    if (comparison.expected[slot] != hashOf(key)) report.otherKeys.add(record);
}

}  // namespace

TagReport compareTag(const Table& table, const IndexFile& file, const Tag& tag) {
    TagReport report;
    try {
        const index::KeyRule rule = index::ruleOf(table, file, tag);
        std::vector<u64> expected = expectedKeys(table, rule, tag.unique);
        const std::size_t records = expected.size();
        // Only .mdx stores a descending tag from the largest key on.
        const bool descending = tag.descending && file.kind == IndexKind::Mdx;
        Comparison comparison{rule, descending, std::move(expected), std::vector<bool>(records)};
        eachEntry(file, tag, fillerOf(rule), [&](std::string_view key, u32 record) {
            takeEntry(comparison, key, record);
            return true;
        });
        for (std::size_t i = 0; i < records; ++i) {
            if (comparison.expected[i] != kNoEntry && !comparison.seen[i]) {
                comparison.report.missing.add(static_cast<u32>(i + 1));
            }
        }
        return std::move(comparison.report);
    } catch (const index::NotComputed& reason) {
        report.notComputed = reason.what();
        return report;
    }
}

u64 countKeys(const IndexFile& file, const Tag& tag) {
    u64 count = 0;
    eachEntry(file, tag, ' ', [&](std::string_view, u32) {
        ++count;
        return true;
    });
    return count;
}

std::string sentenceOf(const TagReport& report) {
    if (!report.notComputed.empty()) return "not computed: " + report.notComputed;
    std::vector<std::string> parts;
    const auto tell = [&](const Records& records, std::string_view what) {
        if (records.count == 0) return;
        parts.push_back(textOf(records.count, ' ', what, ", first ", records.first));
    };
    tell(report.missing, report.missing.count == 1 ? "record missing" : "records missing");
    tell(report.tooMany, "too many");
    tell(report.otherKeys, report.otherKeys.count == 1 ? "other key" : "other keys");
    tell(report.unordered, "out of order");
    return joined(parts, "; ");
}

}  // namespace mira::tables
