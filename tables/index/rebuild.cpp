#include "tables/index/rebuild.h"

#include <algorithm>
#include <filesystem>
#include <memory>

#include "tables/change/disk.h"
#include "tables/index/compare.h"
#include "tables/index/key.h"
#include "tables/index/write.h"
#include "tables/open/find.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"

namespace mira::tables {
namespace {

using Reports = std::vector<TagReport>;

constexpr const char* kWayOut = "; `mira reindex --force` makes it anew all the same";

/// The tag that speaks against the rule of the keys; the end when none does.
Reports::const_iterator otherRule(const Reports& reports) {
    return std::find_if(reports.begin(), reports.end(),
                        [](const TagReport& report) { return !report.isSameRule(); });
}

/// Whether a backup shows that the keys are made as this library makes them: before a change that
/// left the index as it was, they agreed.
bool agreesWithBackup(const Table& table, const IndexFile& file,
                      const std::function<void()>& step) {
    const ChangeNames names(table.path);
    const auto speaksFor = [](const TagReport& report) {
        return report.notComputed.empty() && report.isSameRule() &&
               (report.keys == 0 || report.tooMany.count < report.keys);
    };
    for (u32 number = 0; number <= kBackupsMost && isThere(names.backup(number)); ++number) {
        try {
            const auto backup =
                openTable(names.backup(number), {.codePage = pageName(*table.page.page)});
            const Reports reports = compareTags(*backup, file, step);
            if (std::all_of(reports.begin(), reports.end(), speaksFor)) return true;
        } catch (const Refusal&) {
            continue;  // it is no table
        }
    }
    return false;
}

/// Only whether they can be computed.
Reports computedTags(const Table& table, const IndexFile& file) {
    Reports reports(file.tags.size());
    for (std::size_t i = 0; i < reports.size(); ++i) {
        try {
            index::ruleOf(table, file, file.tags[i]);
        } catch (const index::NotComputed& reason) {
            reports[i].notComputed = reason.what();
        }
    }
    return reports;
}

Reports comparedTags(const Table& table, const IndexFile& file, const std::function<void()>& step) {
    try {
        return compareTags(table, file, step);
    } catch (const Refusal& damage) {
        refuse(damage.what(), kWayOut);
    }
}

std::string tagOf(const Table& table, const Tag& tag) {
    std::string name;
    if (tag.name.empty()) return name;
    toUtf8(*table.page.page, tag.name, name);
    return textOf("tag ", name, ": ");
}

}  // namespace

std::string whyNotRebuilt(const Table& table, const IndexFile& file, bool anyway,
                          const std::function<void()>& step) {
    if (file.kind != IndexKind::Cdx) {
        return textOf("files of the kind ", kindName(file.kind),
                      " are not rebuilt; the program that made it can do so");
    }
    const Reports reports = anyway ? computedTags(table, file) : comparedTags(table, file, step);
    for (std::size_t i = 0; i < reports.size(); ++i) {
        if (reports[i].notComputed.empty()) continue;
        return tagOf(table, file.tags[i]) + sentenceOf(reports[i]);
    }
    const auto bad = otherRule(reports);
    if (bad == reports.end() || agreesWithBackup(table, file, step)) return "";
    const Tag& tag = file.tags[static_cast<std::size_t>(bad - reports.begin())];
    return textOf(tagOf(table, tag), sentenceOf(*bad), kWayOut);
}

IndexPlan planOf(const Table& table, IndexFile file, const std::function<void()>& step) {
    const auto old = std::make_shared<const IndexFile>(std::move(file));
    const std::string page(pageName(*table.page.page));
    checkRoom(ChangeNames(table.path).newIndex(), old->size);
    return {std::filesystem::path(old->path).filename().string(),
            [old, page, step](const std::string& path, int descriptor) {
                const auto now = openTable(path, {.codePage = page});
                writeIndex(*now, *old, descriptor, step);
            }};
}

IndexPlan planReindex(const Table& table, const std::function<void()>& step) {
    IndexPlan plan;
    const std::vector<std::string> files = indexFilesBeside(table.path);
    if (files.empty()) return plan;
    const auto reader = openAgain(table);
    for (const std::string& path : files) {
        IndexFile file = openIndex(path);
        const std::string why = whyNotRebuilt(*reader, file, false, step);
        if (!why.empty()) refuse(path, ": cannot be rebuilt, so nothing is changed: ", why);
        plan = planOf(table, std::move(file), step);
    }
    return plan;
}

}  // namespace mira::tables
