// Sorting a table of a million records by a 30-byte character field, beside what it cannot do
// without: std::sort over keys that are ready in memory, and one reading of the table file.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "mira.h"

namespace {

constexpr mira::u32 kRecords = 1'000'000;
constexpr std::size_t kKeySize = 30;
constexpr std::size_t kRecordSize = 1 + kKeySize + 10;

std::string number(std::size_t value, int bytes) {
    std::string text;
    for (int i = 0; i < bytes; ++i) text += static_cast<char>(value >> (8 * i));
    return text;
}

std::string descriptor(const char* name, char type, std::size_t length) {
    std::string text(name);
    text.resize(11);
    text += type;
    text.resize(16);
    text += number(length, 1);
    text.resize(32);
    return text;
}

/// Kinds of keys: words that differ early, words behind a beginning that all share, few values.
enum Kind { kWords, kShared, kFew };

std::string key(Kind kind, std::mt19937& random) {
    std::string text = kind == kShared ? "INVENTORY/2024/" : "";
    const std::size_t length = text.size() + 4 + random() % 12;
    if (kind == kFew) return "GROUP " + std::to_string(random() % 100);
    while (text.size() < length) text += static_cast<char>('A' + random() % 26);
    return text;
}

/// A table file in the temporary directory, removed at the end.
class TableFile {
public:
    explicit TableFile(Kind kind) {
        path_ = (std::filesystem::temp_directory_path() / "mira_bench_sort.dbf").string();
        std::string bytes = "\x03\x18\x0B\x18" + number(kRecords, 4) + number(32 + 2 * 32 + 1, 2) +
                            number(kRecordSize, 2);
        bytes.resize(32);
        bytes += descriptor("NAME", 'C', kKeySize) + descriptor("AMOUNT", 'N', 10) + '\x0D';
        std::mt19937 random(1);
        for (mira::u32 i = 0; i < kRecords; ++i) {
            std::string name = key(kind, random);
            name.resize(kKeySize, ' ');
            bytes += ' ' + name + "      1234";
        }
        std::ofstream(path_, std::ios::binary) << bytes << '\x1A';
    }
    ~TableFile() { std::filesystem::remove(path_); }
    TableFile(const TableFile&) = delete;
    TableFile& operator=(const TableFile&) = delete;

    const char* path() const { return path_.c_str(); }

private:
    std::string path_;
};

void sortTable(benchmark::State& state) {
    const TableFile file(static_cast<Kind>(state.range(0)));
    mira::DbfBase* h = mira::OpenBaseRO(file.path());
    for (auto _ : state) {
        if (mira::SortBase(h, "NAME", nullptr) == 0) state.SkipWithError("not sorted");
    }
    mira::CloseBase(h);
}

struct ReadyKey {
    std::array<char, kKeySize> text;
    mira::u32 position;
    bool operator<(const ReadyKey& other) const {
        const int difference = std::memcmp(text.data(), other.text.data(), kKeySize);
        return difference != 0 ? difference < 0 : position < other.position;
    }
};

std::vector<ReadyKey> readyKeys(const char* path) {
    std::vector<ReadyKey> keys(kRecords);
    std::ifstream in(path, std::ios::binary);
    in.seekg(32 + 2 * 32 + 1);
    std::array<char, kRecordSize> record;
    for (mira::u32 i = 0; i < kRecords; ++i) {
        in.read(record.data(), kRecordSize);
        std::memcpy(keys[i].text.data(), record.data() + 1, kKeySize);
        keys[i].position = i;
    }
    return keys;
}

void readWhole(const char* path) {
    std::FILE* file = std::fopen(path, "rb");
    std::array<char, kRecordSize> record;
    while (file != nullptr && std::fread(record.data(), 1, kRecordSize, file) == kRecordSize) {
        benchmark::DoNotOptimize(record);
    }
    if (file != nullptr) std::fclose(file);
}

void sortReadyKeys(benchmark::State& state) {
    const TableFile file(static_cast<Kind>(state.range(0)));
    const std::vector<ReadyKey> keys = readyKeys(file.path());
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<ReadyKey> copy = keys;
        state.ResumeTiming();
        std::sort(copy.begin(), copy.end());
        readWhole(file.path());
        benchmark::DoNotOptimize(copy.data());
    }
}

BENCHMARK(sortTable)->Name("SortBase")->DenseRange(kWords, kFew)->Unit(benchmark::kMillisecond);
BENCHMARK(sortReadyKeys)
    ->Name("std::sort of ready keys and one reading")
    ->DenseRange(kWords, kFew)
    ->Unit(benchmark::kMillisecond);

}  // namespace
