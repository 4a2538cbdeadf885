// The table leaves a hash of the key of every record, eight bytes each; then the
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

struct Comparison {
    const Tag& tag;
    index::KeyRule rule;
    bool isDescending;  // the largest key comes first
    TagReport& report;
    std::vector<u64> expected{};  // by record: what stands in the index for it, by the table
    std::unordered_set<u64> taken{};
    std::vector<bool> seen{};
    std::string before{};
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

/// What the index has to hold, for some of its tags.
void readTable(const Table& table, const std::vector<Comparison*>& some, const index::Step& step) {
    std::vector<const index::KeyRule*> rules;
    for (Comparison* const each : some) {
        rules.push_back(&each->rule);
        each->expected.assign(reccount(table.base.get()), kNoEntry);
        each->seen.assign(each->expected.size(), false);
    }
    eachKey(table, rules, step, [&](std::size_t number, std::string_view key, u32 record) {
        Comparison& comparison = *some[number];
        const u64 hash = hashOf(key);
        if (comparison.tag.unique && !comparison.taken.insert(hash).second) return;
        comparison.expected[record - 1] = hash;
    });
}

void compareEntries(const IndexFile& file, Comparison& comparison) {
    eachEntry(file, comparison.tag, fillerOf(comparison.rule),
              [&](std::string_view key, u32 record) {
                  takeEntry(comparison, key, record);
                  return true;
              });
    for (std::size_t i = 0; i < comparison.expected.size(); ++i) {
        if (comparison.expected[i] == kNoEntry || comparison.seen[i]) continue;
        comparison.report.missing.add(static_cast<u32>(i + 1));
    }
    comparison.expected = {};
    comparison.taken = {};
}

}  // namespace

std::vector<TagReport> compareTags(const Table& table, const IndexFile& file,
                                   const std::function<void()>& step) {
    constexpr u64 kMostHashes = 1 << 24;  // in memory, unless one tag alone needs more
    std::vector<TagReport> reports(file.tags.size());
    std::vector<Comparison> comparisons;
    for (std::size_t i = 0; i < file.tags.size(); ++i) {
        const Tag& tag = file.tags[i];
        try {
            // Only .mdx stores a descending tag from the largest key on.
            const bool descending = tag.descending && file.kind == IndexKind::Mdx;
            comparisons.push_back({tag, index::ruleOf(table, file, tag), descending, reports[i]});
        } catch (const index::NotComputed& reason) {
            reports[i].notComputed = reason.what();
        }
    }
    const u64 records = std::max<u64>(reccount(table.base.get()), 1);
    const std::size_t most = static_cast<std::size_t>(std::max<u64>(kMostHashes / records, 1));
    for (std::size_t first = 0; first < comparisons.size(); first += most) {
        std::vector<Comparison*> some;
        for (std::size_t i = first; i < std::min(first + most, comparisons.size()); ++i) {
            some.push_back(&comparisons[i]);
        }
        readTable(table, some, step);
        for (Comparison* const each : some) compareEntries(file, *each);
    }
    return reports;
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
