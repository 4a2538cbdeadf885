#include "tables/index/stale.h"

#include <algorithm>
#include <filesystem>
#include <optional>

#include "tables/index/key.h"
#include "tables/open/find.h"
#include "tables/page/refusal.h"

namespace mira::tables {
namespace {

enum class Effect : u8 {
    None,
    Stale,
    NotComputed  // stale, as far as can be told, and not to be rebuilt here
};

Effect effectOn(const Table& table, const IndexFile& file, const Tag& tag, const Touched& touched) {
    try {
        const index::KeyRule rule = index::ruleOf(table, file, tag);
        const bool stale = touched.records || isTouched(rule.key, touched.offsets, touched.marks) ||
                           isTouched(rule.condition, touched.offsets, touched.marks);
        return stale ? Effect::Stale : Effect::None;
    } catch (const index::NotComputed&) {
        return Effect::NotComputed;
    }
}

Effect effectOn(const Table& table, const std::string& path, const Touched& touched) {
    try {
        const IndexFile file = openIndex(path);
        Effect gravest = Effect::None;
        for (const Tag& tag : file.tags) {
            gravest = std::max(gravest, effectOn(table, file, tag, touched));
        }
        const bool rebuilt = file.kind == IndexKind::Cdx;
        return gravest == Effect::Stale && !rebuilt ? Effect::NotComputed : gravest;
    } catch (const Refusal&) {
        // The command that is named says what is wrong with it.
        const std::string name = std::filesystem::path(path).filename().string();
        return ChangeNames(table.path).isIndexName(name) ? Effect::Stale : Effect::NotComputed;
    }
}

/// The table's name as a command takes it.
std::string shortName(const std::string& path) {
    const std::filesystem::path table(path);
    return sameText(table.extension().string(), ".dbf")
               ? std::filesystem::path(table).replace_extension().string()
               : path;
}

}  // namespace

std::vector<std::string> staleIndexes(const Table& table, const Touched& touched) {
    constexpr u8 kIndexFlag = 1;  // header byte 28
    std::vector<std::string> sentences;
    const std::vector<std::string> files = indexFilesBeside(table.path);
    for (const std::string& path : files) {
        const Effect effect = effectOn(table, path, touched);
        if (effect == Effect::None) continue;
        sentences.push_back(
            effect == Effect::Stale
                ? textOf(path, " is now out of date; run `mira reindex ", shortName(table.path),
                         '`')
                : path + " is now out of date; rebuild it in the program that made it");
    }
    if (files.empty() && (table.tableFlags & kIndexFlag) != 0) {
        sentences.push_back(table.path + ": its index file, which is not here, is now out of date");
    }
    return sentences;
}

}  // namespace mira::tables
