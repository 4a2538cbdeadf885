#include "select/selection.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>

#include "select/opening.h"
#include "select/runfilter.h"
#include "tables/filter/filter.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"
#include "terminal/message.h"
#include "terminal/status.h"

namespace mira::tool {
namespace {

constexpr u32 kSortFields = 21;

// --------------------------------------------------------------------------------------------
// Columns
// --------------------------------------------------------------------------------------------

void addCalculatedColumns(Table& table, const std::vector<std::string>& definitions) {
    for (const std::string& definition : definitions) {
        const std::size_t equals = definition.find('=');
        if (equals == std::string::npos) {
            refuse("--calc ", definition, ": NAME=EXPRESSION, such as TOTAL=PRICE*QTY");
        }
        addCalculated(table, trimmed(std::string_view(definition).substr(0, equals)),
                      std::string_view(definition).substr(equals + 1));
    }
}

bool holds(const std::vector<Column>& columns, const Column& column) {
    return std::any_of(columns.begin(), columns.end(),
                       [&](const Column& c) { return c.name == column.name; });
}

std::vector<Column> chosenColumns(const Table& table, const SelectOptions& options) {
    std::vector<Column> named;
    for (const std::string& name : options.fields) {
        const Column& column = columnNamed(table, name);
        if (!holds(named, column)) named.push_back(column);
    }
    std::vector<Column> excluded;
    for (const std::string& name : options.exclude) {
        excluded.push_back(columnNamed(table, name));
    }
    std::vector<Column> columns = named;
    for (const Column& column : table.columns) {
        const bool wanted = named.empty() || column.kind == Kind::Calculated;
        if (wanted && !holds(columns, column)) columns.push_back(column);
    }
    std::erase_if(columns, [&](const Column& column) { return holds(excluded, column); });
    if (columns.empty() && !excluded.empty()) refuse(table.path, ": no column is left");
    return columns;
}

// --------------------------------------------------------------------------------------------
// Records
// --------------------------------------------------------------------------------------------

/// "5,9-12" as ranges that lie in order and apart.
std::vector<Range> numberedRecords(const std::string& list) {
    std::vector<Range> ranges;
    for (const std::string& part : splitList(list)) {
        u32 first = 0;
        const char* const end = part.data() + part.size();
        auto read = std::from_chars(part.data(), end, first);
        u32 last = first;
        if (read.ptr != end && *read.ptr == '-') read = std::from_chars(read.ptr + 1, end, last);
        if (read.ec != std::errc() || read.ptr != end || first < 1 || last < first) {
            refuse("--records ", list, ": numbers from 1 and ranges of them, such as 5,9-12");
        }
        ranges.push_back({first - 1, last});
    }
    if (ranges.empty()) refuse("--records: no number is given, such as 5,9-12");
    std::sort(ranges.begin(), ranges.end(),
              [](const Range& a, const Range& b) { return a.first < b.first; });
    std::vector<Range> apart;
    for (const Range& range : ranges) {
        if (apart.empty() || range.first > apart.back().end) {
            apart.push_back(range);
        } else {
            apart.back().end = std::max(apart.back().end, range.end);
        }
    }
    return apart;
}

bool isNumbered(const std::vector<Range>& ranges, u32 record) {
    const auto after =
        std::upper_bound(ranges.begin(), ranges.end(), record,
                         [](u32 number, const Range& range) { return number < range.first; });
    return after != ranges.begin() && record < std::prev(after)->end;
}

Range shardRange(const std::string& shard, u32 count) {
    if (shard.empty()) return {0, count};
    u64 k = 0;
    u64 n = 0;
    const char* const end = shard.data() + shard.size();
    const auto [slash, error] = std::from_chars(shard.data(), end, k);
    const bool whole = error == std::errc() && slash != end && *slash == '/' &&
                       std::from_chars(slash + 1, end, n).ptr == end;
    if (!whole || k < 1 || k > n || n > 0xFFFFFFFF) {
        refuse("--shard ", shard, ": K/N, with K from 1 to N, such as 1/4");
    }
    return {static_cast<u32>(count * (k - 1) / n), static_cast<u32>(count * k / n)};
}

/// The records of a range from the first to the last that have numbers of their own.
Range withinNumbered(const Range& range, const std::vector<Range>& numbered) {
    if (numbered.empty()) return range;
    const u32 first = std::clamp(numbered.front().first, range.first, range.end);
    return {first, std::clamp(numbered.back().end, first, range.end)};
}

int stopSort() { return stopped() ? 1 : 0; }

/// While it lives the records that the library reads move a bar, and Ctrl-C ends their reading.
class WatchedReading {
public:
    WatchedReading(DbfBase* base, const std::string& what)
        : base_(base), progress_(what, reccount(base)) {
        running = &progress_;
        base->AfterRead = [](DbfBase*) {
            running->add(1);
            leaveIfStopped();
            return 1;
        };
    }
    ~WatchedReading() { base_->AfterRead = nullptr; }
    WatchedReading(const WatchedReading&) = delete;

private:
    static thread_local Progress* running;
    DbfBase* base_;
    Progress progress_;
};
thread_local Progress* WatchedReading::running = nullptr;

void sortView(Table& table, const SelectOptions& options) {
    if (options.sort.size() > kSortFields) {
        refuse(table.path, ": at most ", kSortFields, " fields to sort by");
    }
    std::string list;
    for (const std::string& name : options.sort) {
        (list += libraryName(table, columnNamed(table, name))) += ',';
    }
    table.base->SortDescending = options.descending ? 1 : 0;
    const WatchedReading watched(table.base.get(), "sort " + table.path);
    const bool done = SortBase(table.base.get(), list.c_str(), stopSort) != 0;
    leaveIfStopped();
    if (!done) refuse(table.path, ": no memory to sort it");
}

void tellFault(const Selection& selection, Fault fault) {
    const FaultTally& tally = selection.faults[static_cast<std::size_t>(fault)];
    if (tally.count == 0) return;
    note("{}: {}{}", selection.table->path, faultSentence(fault, tally),
         fault == Fault::Rounded ? "; --exact keeps all digits" : "");
}

void addList(CLI::App& command, const char* name, std::vector<std::string>& list,
             const char* help) {
    const auto take = [&list](const std::string& given) { list = splitList(given); };
    command.add_option_function<std::string>(name, take, help)->type_name("A,B,...");
}

void addColumnOptions(CLI::App& command, SelectOptions& options) {
    addList(command, "-f,--fields", options.fields, "These columns, in this order");
    addList(command, "-x,--exclude", options.exclude, "All columns but these");
}

void addDeletedOption(CLI::App& command, SelectOptions& options) {
    addChoice(command, "--deleted", "Deleted records: skip (default), include or only", "WHICH",
              kDeletedWords, options.deleted);
}

void addRawOption(CLI::App& command, SelectOptions& options) {
    command.add_flag("--raw", options.table.raw, "Texts, numbers and dates as they are stored");
}

}  // namespace

void addFilterOptions(CLI::App& command, SelectOptions& options) {
    command.add_option("-w,--where", options.where, "Only records that satisfy the filter")
        ->type_name("FILTER");
    command.add_option("--records", options.records, "Only records of these numbers, from 1")
        ->type_name("5,9-12");
    command.add_flag("-i,--ignore-case", options.ignoreCase, "Filters ignore letter case");
}

void addTableOptions(CLI::App& command, TableOptions& options) {
    command.add_option("--code-page", options.codePage, "Code page of the texts, such as CP866")
        ->type_name("NAME");
    addList(command, "--as-text", options.asText, "Binary fields that hold text after all");
    command.add_flag("--long-names", options.longNames, "Field names from the database container");
}

void addSelectOptions(CLI::App& command, SelectOptions& options) {
    addFilterOptions(command, options);
    addList(command, "-s,--sort", options.sort, "Sort by these fields");
    command.add_flag("--descending", options.descending, "Sort from the greatest down");
    addColumnOptions(command, options);
    command.add_option("--calc", options.calculated, "Add a calculated column; may be given again")
        ->type_name("NAME=EXPRESSION")
        ->allow_extra_args(false);
    addDeletedOption(command, options);
    command.add_flag("--record", options.recordColumn, "A first column _record with the number");
    addCount(command, "-n,--limit", "At most N records, 0 for all", options.limit);
    addCount(command, "--offset", "Leave out the first N records", options.offset);
    command.add_option("--shard", options.shard, "The K-th of N equal ranges of records")
        ->type_name("K/N");
    addTableOptions(command, options.table);
    addRawOption(command, options);
}

void addCompareOptions(CLI::App& command, SelectOptions& options) {
    addFilterOptions(command, options);
    addColumnOptions(command, options);
    addDeletedOption(command, options);
    addTableOptions(command, options.table);
    addRawOption(command, options);
}

std::unique_ptr<Selection> selectFrom(const std::string& path, const SelectOptions& options,
                                      Listing* listing) {
    return selectFrom(openToRead(path, options.table, listing), options);
}

std::unique_ptr<Selection> selectFrom(std::unique_ptr<Table> opened, const SelectOptions& options) {
    Table& table = *opened;
    DbfBase* const base = table.base.get();
    addCalculatedColumns(table, options.calculated);
    auto selection = std::make_unique<Selection>(
        Selection{std::move(opened), chosenColumns(table, options), CellReader(table)});
    std::vector<Column>& columns = selection->columns;
    if (options.recordColumn) {
        columns.insert(columns.begin(), extraColumn(table, "_record", Kind::RecordNumber));
    }
    if (options.deleted == Deleted::Include) {
        columns.push_back(extraColumn(table, "_deleted", Kind::Deletion));
    }

    base->SkipDeleted = options.deleted == Deleted::Skip ? 1 : 0;
    if (!options.records.empty()) selection->numbered = numberedRecords(options.records);
    const Range range =
        withinNumbered(shardRange(options.shard, base->Header.RecordCount), selection->numbered);
    const bool whole = range.first == 0 && range.end == base->Header.RecordCount;
    const bool reordered = !options.where.empty() || !options.sort.empty();
    if (!whole && reordered) viewRange(base, range.first, range.end);
    if (!options.where.empty()) applyFilter(table, options.where, options.ignoreCase);
    if (!options.sort.empty()) sortView(table, options);
    selection->position = reordered ? 0 : range.first;
    selection->end = reordered ? reccount(base) : range.end;
    selection->deleted = options.deleted;
    selection->limit = options.limit.value_or(0);
    selection->offset = options.offset;
    return selection;
}

void requireColumns(const Selection& selection) {
    if (!selection.columns.empty()) return;
    refuse(selection.table->path,
           ": no field of it can be shown; --record gives the numbers of its "
           "records");
}

bool nextRow(Selection& s) {
    DbfBase* const base = s.table->base.get();
    DbfBase* const view = s.view != nullptr ? s.view : base;
    if (!s.progress) {
        s.progress = std::make_unique<Progress>(s.table->path, s.end - s.position);
    }
    while (s.position < s.end && (s.limit == 0 || s.rows < s.limit)) {
        leaveIfStopped();
        const u32 position = s.position++;
        s.cells.record = recno(view, GetOrder(view, position));
        if (!s.numbered.empty() && !isNumbered(s.numbered, s.cells.record)) {
            s.progress->add(1);
            continue;
        }
        if (ReadRecord(base, view == base ? position : s.cells.record) == 0) {
            refuse(s.table->path, ": record ", u64{s.cells.record} + 1, " cannot be read");
        }
        s.progress->add(1);
        if (s.deleted == (isDeleted(*s.table) ? Deleted::Skip : Deleted::Only)) continue;
        if (s.offset != 0) {
            --s.offset;
            continue;
        }
        ++s.rows;
        return true;
    }
    s.progress.reset();
    return false;
}

void tellPage(const Table& table) {
    if (!table.page.uncertain) return;
    note("{}: {}", table.path, pageDoubt(table.page, "--code-page NAME"));
}

bool tellFaults(const Selection& selection) {
    const Table& table = *selection.table;
    for (const std::string& sentence : table.notes) note("{}: {}", table.path, sentence);
    tellPage(table);
    for (std::size_t i = 1; i < kFaults; ++i) tellFault(selection, static_cast<Fault>(i));
    return faultCount(selection.faults) != 0;
}

}  // namespace mira::tool
