// read_dbf: tables as rows. The columns are those of the first table; the others have to agree.
//
// The records are cut into ranges, which threads take in order. Each opens the table of its range
// anew, and fills DuckDB's vectors from arrays that it uses again and again. Where DuckDB keeps the
// order of rows, it reads by one thread.
#include <algorithm>
#include <atomic>
#include <filesystem>

#include "duckdb/chunk.h"
#include "duckdb/functions.h"
#include "duckdb/names.h"
#include "duckdb/options.h"
#include "tables/column/column.h"

namespace mira::duck {
namespace {

using arrow::Field;
using arrow::Part;
using arrow::Vector;
using tables::Table;

constexpr u64 kRangeBytes = u64{8} << 20;
constexpr u32 kMemoRows = 64;  // whose memos are read before their bytes are counted

/// What a query asks for.
struct Plan {
    SharedWarnings warnings;
    ReadOptions options;
    std::vector<std::string> tables;
    std::vector<Field> fields;
};

/// Records of a table that one thread reads.
struct Range {
    std::size_t table = 0;
    u64 first = 0, end = 0;  // end 0: that of the table
    std::string page;        // empty: chosen by whoever opens the table
};

/// One run of a query, shared by its threads.
struct Scan {
    u64 read = 0;
    std::vector<Range> ranges;
    std::atomic<std::size_t> next = 0;  // of the ranges
    std::vector<bool> wanted;           // DuckDB's columns: whether each is a field
    std::vector<Field> fields;          // those that are
    u32 step = 0;                       // rows that are taken at once
};

/// What one thread has in hand.
struct Reader {
    std::optional<Part> part{};
    std::vector<Vector> vectors{};
};

const char* pageOf(const Plan& plan, const Range& range) {
    if (!range.page.empty()) return range.page.c_str();
    return plan.options.codePage ? plan.options.codePage->c_str() : nullptr;
}

std::unique_ptr<Table> openTable(const Plan& plan, const Range& range) {
    return arrow::openFor(plan.tables[range.table].c_str(), pageOf(plan, range),
                          plan.options.longNames);
}

u64 sizeOf(const std::string& path) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    return error ? 0 : size;
}

// --------------------------------------------------------------------------------------------
// Bind: columns
// --------------------------------------------------------------------------------------------

void bind(duckdb_bind_info info) {
    auto plan = std::make_unique<Plan>();
    plan->warnings = *static_cast<SharedWarnings*>(duckdb_bind_get_extra_info(info));
    plan->options = optionsOf(info);
    plan->tables = tablesNamed(Value(duckdb_bind_get_parameter(info, 0)).texts());
    const Part first(openTable(*plan, {}), plan->options.forRange(0, 1, pageOf(*plan, {})));
    plan->fields = first.fields;
    for (const Field& field : plan->fields) declareColumn(info, field);
    u64 bytes = 0;
    for (const std::string& path : plan->tables) bytes += sizeOf(path);
    const u64 length = std::max<u64>(first.table->base->Header.RecordLength, 1);
    duckdb_bind_set_cardinality(info, bytes / length, false);
    duckdb_bind_set_bind_data(info, plan.release(), destroy<Plan>);
}

// --------------------------------------------------------------------------------------------
// Init: ranges
// --------------------------------------------------------------------------------------------

/// Cuts a table into ranges; their threads choose no code page of their own.
void cutTable(const Plan& plan, std::size_t number, Scan& scan) {
    const ReadOptions& options = plan.options;
    const std::unique_ptr<Table> table = openTable(plan, {number, 0, 0, {}});
    plan.warnings->note(scan.read, *table);
    const u64 count = table->base->Header.RecordCount;
    const u64 end = std::min(options.until.value_or(count), count);
    const u64 length = std::max<u64>(table->base->Header.RecordLength, 1);
    const u64 step =
        options.rangeRecords != 0 ? options.rangeRecords : std::max<u64>(kRangeBytes / length, 1);
    const std::string page = tables::pageName(*table->page.page);
    for (u64 first = options.first; first < end;) {
        const u64 next = end - first > step ? first + step : end;
        scan.ranges.push_back({number, first, next, page});
        first = next;
    }
}

void cutTables(const Plan& plan, Scan& scan) {
    const ReadOptions& options = plan.options;
    for (std::size_t i = 0; i < plan.tables.size(); ++i) {
        if (options.rangeRecords != 0 || options.until || sizeOf(plan.tables[i]) > kRangeBytes) {
            cutTable(plan, i, scan);
        } else {
            scan.ranges.push_back({i, options.first, ~u64{0}, {}});
        }
    }
}

void init(duckdb_init_info info) {
    const Plan& plan = *static_cast<Plan*>(duckdb_init_get_bind_data(info));
    auto scan = std::make_unique<Scan>();
    scan->read = plan.warnings->nextRead();
    scan->step = static_cast<u32>(duckdb_vector_size());
    const idx_t count = duckdb_init_get_column_count(info);
    for (idx_t i = 0; i < count; ++i) {
        // Where only rows are counted, DuckDB may ask for a column that there is not.
        const idx_t column = duckdb_init_get_column_index(info, i);
        scan->wanted.push_back(column < plan.fields.size());
        if (!scan->wanted.back()) continue;
        scan->fields.push_back(plan.fields[column]);
        const tables::Kind kind = scan->fields.back().column.kind;
        if (kind == tables::Kind::Memo || kind == tables::Kind::Blob) scan->step = kMemoRows;
    }
    cutTables(plan, *scan);
    duckdb_init_set_max_threads(info, std::max<std::size_t>(scan->ranges.size(), 1));
    duckdb_init_set_init_data(info, scan.release(), destroy<Scan>);
}

void initReader(duckdb_init_info info) {
    duckdb_init_set_init_data(info, std::make_unique<Reader>().release(), destroy<Reader>);
}

// --------------------------------------------------------------------------------------------
// Rows
// --------------------------------------------------------------------------------------------

void endPart(const Plan& plan, const Scan& scan, Reader& reader) {
    plan.warnings->note(scan.read, *reader.part->table);
    plan.warnings->add(scan.read, *reader.part->table, reader.part->cells.met);
    reader.part.reset();
}

/// Opens the next range; false when there is none.
bool openNext(const Plan& plan, Scan& scan, Reader& reader) {
    const std::size_t number = scan.next++;
    if (number >= scan.ranges.size()) return false;
    const Range& range = scan.ranges[number];
    reader.part.emplace(openTable(plan, range),
                        plan.options.forRange(range.first, range.end, pageOf(plan, range)));
    arrow::demandFields(*reader.part, plan.fields, plan.tables.front());
    reader.part->fields = scan.fields;
    return true;
}

/// Appends up to so many rows to the reader's arrays; how many there are, 0 at the end.
std::size_t readRows(const Plan& plan, Scan& scan, Reader& reader, std::size_t most) {
    reader.vectors.resize(scan.fields.size());
    for (std::size_t i = 0; i < scan.fields.size(); ++i) {
        reader.vectors[i].clear();
        arrow::prepareVector(scan.fields[i], 0, reader.vectors[i]);
    }
    std::size_t rows = 0;
    while (rows < most && arrow::bytesOf(reader.vectors) < arrow::kBatchBytes) {
        if (!reader.part && !openNext(plan, scan, reader)) break;
        if (!reader.part->records.next(std::min(static_cast<u32>(most - rows), scan.step))) {
            endPart(plan, scan, reader);
            continue;
        }
        arrow::appendBlock(*reader.part, reader.vectors);
        rows += reader.part->records.rows().size();
    }
    return rows;
}

void putRows(const Scan& scan, Reader& reader, std::size_t rows, duckdb_data_chunk chunk) {
    std::size_t field = 0;
    for (std::size_t i = 0; i < scan.wanted.size(); ++i) {
        duckdb_vector to = duckdb_data_chunk_get_vector(chunk, i);
        if (scan.wanted[i]) {
            putColumn(scan.fields[field], reader.vectors[field], to);
            ++field;
        } else {
            for (std::size_t row = 0; row < rows; ++row) putNull(to, row);
        }
    }
    duckdb_data_chunk_set_size(chunk, rows);
}

void fill(duckdb_function_info info, duckdb_data_chunk chunk) {
    const Plan& plan = *static_cast<Plan*>(duckdb_function_get_bind_data(info));
    Scan& scan = *static_cast<Scan*>(duckdb_function_get_init_data(info));
    Reader& reader = *static_cast<Reader*>(duckdb_function_get_local_init_data(info));
    try {
        putRows(scan, reader, readRows(plan, scan, reader, duckdb_vector_size()), chunk);
    } catch (...) {
        if (reader.part) endPart(plan, scan, reader);
        throw;
    }
}

}  // namespace

bool addReader(duckdb_connection connection, const SharedWarnings& warnings) {
    TableFunction function("read_dbf");
    duckdb_table_function_add_parameter(function.get(), Type(DUCKDB_TYPE_ANY).get());
    declareOptions(function.get());
    function.keep(warnings);
    duckdb_table_function_supports_projection_pushdown(function.get(), true);
    duckdb_table_function_set_bind(function.get(), bindGuarded<bind>);
    duckdb_table_function_set_init(function.get(), initGuarded<init>);
    duckdb_table_function_set_local_init(function.get(), initGuarded<initReader>);
    duckdb_table_function_set_function(function.get(), fillGuarded<fill>);
    return function.addTo(connection);
}

}  // namespace mira::duck
