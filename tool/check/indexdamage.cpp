#include "check/indexdamage.h"

#include <filesystem>

#include "select/records.h"
#include "tables/index/compare.h"
#include "tables/open/find.h"
#include "tables/page/refusal.h"
#include "terminal/status.h"

namespace mira::tool {
namespace {

void tellTag(const Table& table, const IndexFile& file, const Tag& tag, const TagReport& found,
             const Report& report) {
    std::string place = std::filesystem::path(file.path).filename().string();
    if (!tag.name.empty()) {
        place += ", tag ";
        toUtf8(*table.page.page, tag.name, place);
    }
    if (found.notComputed.empty() && found.agrees()) return;
    report({.isNote = !found.notComputed.empty(), .what = place + ": " + sentenceOf(found)});
}

}  // namespace

void checkIndexes(const Table& table, const Report& report) {
    for (const std::string& path : indexFilesBeside(table.path)) {
        try {
            const IndexFile file = openIndex(path);
            const std::vector<TagReport> found = compareTags(table, file, watchPasses(table));
            for (std::size_t i = 0; i < found.size(); ++i) {
                tellTag(table, file, file.tags[i], found[i], report);
            }
        } catch (const Refusal& damage) {
            report({.what = damage.what()});
        }
    }
}

}  // namespace mira::tool
