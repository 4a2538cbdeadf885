#include "select/inorder.h"

#include "tables/open/open.h"
#include "tables/page/refusal.h"

namespace mira::tool {
namespace {

constexpr u64 kWorthwhile = 1 << 20;  // bytes of records; below, threads take longer to start
constexpr u32 kRangeBytes = 1 << 16;

u32 fixedRecords = 0;

bool isSamePage(const Table& a, const Table& b) {
    return a.page.page->name == b.page.page->name && a.page.page->kind == b.page.page->kind;
}

}  // namespace

void cutInto(u32 records) { fixedRecords = records; }

unsigned threadsAsked(unsigned jobs) {
    return jobs != 0 ? jobs : std::max(std::thread::hardware_concurrency(), 1U);
}

Cut cutFor(const Table& table, u32 count, unsigned jobs) {
    const u32 length = std::max<u32>(table.base->Header.RecordLength, 1);
    Cut cut;
    cut.records = fixedRecords != 0 ? fixedRecords : std::max<u32>(kRangeBytes / length, 1);
    const bool large = fixedRecords != 0 || u64{count} * length >= kWorthwhile;
    if (!large || count <= cut.records) return cut;
    cut.threads = std::min(threadsAsked(jobs), (count - 1) / cut.records + 1);
    return cut;
}

std::vector<std::unique_ptr<Table>> openForThreads(const Table& table, const Cut& cut) {
    std::vector<std::unique_ptr<Table>> tables;
    if (cut.threads < 2) return tables;
    TableOptions options = table.options;
    if (options.codePage.empty()) options.codePage = table.page.page->name;
    try {
        while (tables.size() < cut.threads) {
            auto another = openTable(table.path, options);
            if (!isSamePage(*another, table)) break;
            tables.push_back(std::move(another));
        }
    } catch (const Refusal&) {
        // No more files can be open; those there are will do.
    }
    if (tables.size() < 2 || isReplaced(table)) tables.clear();
    return tables;
}

}  // namespace mira::tool
