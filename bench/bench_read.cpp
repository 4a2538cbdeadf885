// Opening, reading and rendering.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "mira.h"
#include "tables.h"

namespace {

/// Writes tables into the temporary directory on first use and removes them at the end.
class Tables {
public:
    ~Tables() {
        for (const auto& [key, path] : paths_) std::filesystem::remove(path);
    }
    const char* path(unsigned char version, const std::vector<bench::Column>& columns,
                     unsigned count) {
        std::string& path = paths_[{columns.data(), count}];
        if (path.empty()) {
            const std::string name = "mira_bench_read" + std::to_string(paths_.size()) + ".dbf";
            path = (std::filesystem::temp_directory_path() / name).string();
            bench::writeTable(path, version, columns, count);
        }
        return path.c_str();
    }

private:
    std::map<std::pair<const bench::Column*, unsigned>, std::string> paths_;
};

Tables tables;

constexpr unsigned kSmall = 100;
constexpr unsigned kLarge = 1'000'000;

void openAndClose(benchmark::State& state) {
    const char* path = tables.path(0x03, bench::kMixed, kSmall);
    for (auto _ : state) mira::CloseBase(mira::OpenBase(path));
}

void readSequentially(benchmark::State& state) {
    mira::DbfBase* h = mira::OpenBaseRO(tables.path(0x03, bench::kMixed, kLarge));
    mira::u32 position = 0;
    for (auto _ : state) {
        mira::ReadRecord(h, position);
        position = (position + 1) % kLarge;
    }
    mira::CloseBase(h);
}

void readRandomly(benchmark::State& state) {
    mira::DbfBase* h = mira::OpenBaseRO(tables.path(0x03, bench::kMixed, kLarge));
    bench::Random random;
    for (auto _ : state) mira::ReadRecord(h, static_cast<mira::u32>(random.below(kLarge)));
    mira::CloseBase(h);
}

/// GetStr of one field, with dates in format 1, and a copy of its record from memory.
void render(benchmark::State& state, unsigned char version,
            const std::vector<bench::Column>& columns, int field) {
    constexpr mira::u32 records = 256;
    mira::DbfBase* h = mira::OpenBaseRO(tables.path(version, columns, kLarge));
    h->DateFormat = 1;
    const std::size_t length = h->Header.RecordLength;
    std::vector<mira::u8> rows;
    for (mira::u32 i = 0; i < records; ++i) {
        mira::ReadRecord(h, i);
        rows.insert(rows.end(), h->RecordBuffer, h->RecordBuffer + length);
    }
    std::size_t row = 0;
    for (auto _ : state) {
        std::memcpy(h->RecordBuffer, rows.data() + row * length, length);
        benchmark::DoNotOptimize(mira::GetStr(h, field));
        row = (row + 1) % records;
    }
    mira::CloseBase(h);
}

void dump(benchmark::State& state, unsigned char version,
          const std::vector<bench::Column>& columns) {
    const char* path = tables.path(version, columns, kLarge);
    std::FILE* out = std::fopen("/dev/null", "wb");
    for (auto _ : state) {
        mira::DbfBase* h = mira::OpenBaseRO(path);
        for (mira::u32 position = 0; position < mira::reccount(h); ++position) {
            mira::ReadRecord(h, position);
            for (int field = 0; field < h->FieldCount; ++field)
                std::fputs(mira::GetStr(h, field), out);
        }
        mira::CloseBase(h);
    }
    std::fclose(out);
    state.SetItemsProcessed(state.iterations() * kLarge);
}

BENCHMARK(openAndClose);
BENCHMARK(readSequentially);
BENCHMARK(readRandomly);
BENCHMARK_CAPTURE(render, C30, 0x03, bench::kMixed, 1);
BENCHMARK_CAPTURE(render, N10_2, 0x03, bench::kMixed, 2);
BENCHMARK_CAPTURE(render, D, 0x03, bench::kMixed, 4);
BENCHMARK_CAPTURE(render, L, 0x03, bench::kMixed, 5);
BENCHMARK_CAPTURE(render, F12_3, 0x03, bench::kMixed, 6);
BENCHMARK_CAPTURE(render, I, 0x30, bench::kBinary, 0);
BENCHMARK_CAPTURE(render, B, 0x30, bench::kBinary, 1);
BENCHMARK_CAPTURE(render, Y, 0x30, bench::kBinary, 2);
BENCHMARK_CAPTURE(render, T, 0x30, bench::kBinary, 3);
BENCHMARK_CAPTURE(dump, mixed, 0x03, bench::kMixed)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(dump, numbers, 0x03, bench::kNumbers)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(dump, binary, 0x30, bench::kBinary)->Unit(benchmark::kMillisecond);

}  // namespace
