#include "check/indexdamage.h"

#include <filesystem>

#include "tables/index/compare.h"
#include "tables/open/find.h"
#include "tables/page/refusal.h"
#include "terminal/status.h"

namespace mira::tool {
namespace {

void checkTag(const Table& table, const IndexFile& file, const Tag& tag, const Report& report) {
    std::string place = std::filesystem::path(file.path).filename().string();
    if (!tag.name.empty()) {
        place += ", tag ";
        toUtf8(*table.page.page, tag.name, place);
    }
    const TagReport found = compareTag(table, file, tag);
    if (found.notComputed.empty() && found.agrees()) return;
    report({.isNote = !found.notComputed.empty(), .what = place + ": " + sentenceOf(found)});
}

}  // namespace

void checkIndexes(const Table& table, const Report& report) {
    for (const std::string& path : indexFilesBeside(table.path)) {
        try {
            const IndexFile file = openIndex(path);
            for (const Tag& tag : file.tags) checkTag(table, file, tag, report);
        } catch (const Refusal& damage) {
            report({.what = damage.what()});
        }
    }
}

}  // namespace mira::tool
