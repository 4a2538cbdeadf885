// Filtering a table of a million records, and calculating with its fields, beside what is done
// without expressions: reading every record and rendering two fields.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <string>

#include "mira.h"
#include "tables.h"

namespace {

constexpr mira::u32 kRecords = 1'000'000;

/// A table file in the temporary directory and a handle on it.
class Table {
public:
    Table() : path_((std::filesystem::temp_directory_path() / "mira_bench_filter.dbf").string()) {
        bench::writeTable(path_, 0x03, bench::kPeople, kRecords);
        handle = mira::OpenBaseRO(path_.c_str());
    }
    ~Table() {
        mira::CloseBase(handle);
        std::filesystem::remove(path_);
    }
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    mira::DbfBase* handle;

private:
    std::string path_;
};

void setFilter(benchmark::State& state, const char* text) {
    const Table table;
    for (auto _ : state) {
        if (mira::set_filter(table.handle, text, nullptr) == nullptr) state.SkipWithError(text);
        state.SetLabel(std::to_string(mira::reccount(table.handle)) + " records pass");
        mira::ClearAllFilter(table.handle);
    }
}

/// Reads every record and does something with it.
template <typename Work>
void forEveryRecord(benchmark::State& state, mira::DbfBase* h, const Work& work) {
    for (auto _ : state) {
        for (mira::u32 position = 0; position < kRecords; ++position) {
            mira::ReadRecord(h, position);
            work();
        }
    }
}

void renderFields(benchmark::State& state) {
    const Table table;
    const int price = 2, quantity = 3;
    forEveryRecord(state, table.handle, [&] {
        benchmark::DoNotOptimize(mira::GetStr(table.handle, price));
        benchmark::DoNotOptimize(mira::GetStr(table.handle, quantity));
    });
}

void calculate(benchmark::State& state, const char* expression, bool asText) {
    const Table table;
    mira::DbfBase* const h = table.handle;
    mira::GetMemCalcField(h);
    mira::AddCalcField(h, "CALC", expression);
    const int slot = mira::GetCalcI(h, "CALC");
    forEveryRecord(state, h, [&] {
        if (asText) {
            benchmark::DoNotOptimize(mira::GetCalcStringI(h, slot));
        } else {
            benchmark::DoNotOptimize(mira::GetCalcValueI(h, slot));
        }
    });
    mira::FreeMemCalcField(h);
}

// The filter that all others are compared with.
BENCHMARK_CAPTURE(setFilter, common, "PRICE>500&NAME~an")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(setFilter, product, "PRICE>QTY*2")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(setFilter, sum, "PRICE>QTY*2+10")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(setFilter, function, "NAME=UPPER(an)")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(setFilter, contains, "NAME~LOWER(AN)")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(setFilter, date, "BORN>19800101")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(setFilter, either, "NAME=an|PRICE>9900&PRICE<9950")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(setFilter, grouped, "NAME>m&(PRICE<100|PRICE>9900)")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(setFilter, field_in_function, "NAME=UPPER(CITY)")->Unit(benchmark::kMillisecond);
// What calculated fields of two fields are compared with.
BENCHMARK(renderFields)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(calculate, value, "PRICE*QTY", false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(calculate, text, "PRICE*QTY", true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(calculate, sum, "PRICE+QTY*2+10", true)->Unit(benchmark::kMillisecond);

}  // namespace
