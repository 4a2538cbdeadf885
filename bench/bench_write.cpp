// Writing, memos and structural edits, each beside plain C code that makes the same system calls.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "mira.h"

namespace {

using mira::u32;

constexpr long kHeaderLength = 32 + 2 * 32 + 1;
constexpr std::size_t kRecordLength = 64;  // flag, 53 characters, memo
constexpr u32 kDBase4 = 2;
constexpr std::size_t kTransferSize = 131072;
constexpr u32 kMoved = 100u << 20 >> 6;  // records of 100 MiB
constexpr u32 kPacked = 1'000'000;

/// A table with a memo file in a directory of its own, with count records, every second deleted.
class Sample {
public:
    explicit Sample(u32 count) : dir_(std::filesystem::temp_directory_path() / "mira_bench_write") {
        std::filesystem::create_directories(dir_);
        mira::DbfField fields[2] = {};
        mira::CreateField(&fields[0], "TEXT", 'C', 53);
        mira::CreateField(&fields[1], "NOTE", 'M', 10);
        mira::CreateDatabase(path().c_str(), fields, 2, kDBase4, 512, 1);
        fill(count);
        h = mira::OpenBase(path().c_str());
    }
    ~Sample() {
        mira::CloseBase(h);
        std::filesystem::remove_all(dir_);
    }
    Sample(const Sample&) = delete;
    Sample& operator=(const Sample&) = delete;

    std::string path() const { return (dir_ / "t.dbf").string(); }
    std::string memoPath() const { return (dir_ / "t.dbt").string(); }

    /// Writes the records anew.
    void fill(u32 count) const {
        std::string records(count * kRecordLength, 'x');
        for (u32 i = 0; i < count; ++i) records[i * kRecordLength] = i % 2 == 0 ? ' ' : '*';
        std::FILE* file = std::fopen(path().c_str(), "rb+");
        std::fseek(file, kHeaderLength, SEEK_SET);
        std::fwrite(records.data(), 1, records.size(), file);
        std::fclose(file);
    }

    mira::DbfBase* h;

private:
    std::filesystem::path dir_;
};

std::FILE* openPlain(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "rb+");
    std::setvbuf(file, nullptr, _IONBF, 0);
    return file;
}

void writeAt(std::FILE* file, long offset, const void* bytes, std::size_t count) {
    std::fseek(file, offset, SEEK_SET);
    std::fwrite(bytes, 1, count, file);
}

void append(benchmark::State& state) {
    const Sample sample(0);
    for (auto _ : state) mira::AppendBlank(sample.h, 0);
}

void plainAppend(benchmark::State& state) {
    const Sample sample(0);
    std::FILE* file = openPlain(sample.path());
    const char record[kRecordLength] = {};
    const char header[32] = {};
    long end = kHeaderLength;
    for (auto _ : state) {
        writeAt(file, end, record, sizeof record);
        end += static_cast<long>(sizeof record);
        writeAt(file, 0, header, sizeof header);
        writeAt(file, end, "\x1A", 1);
    }
    std::fclose(file);
}

void setMemo(benchmark::State& state) {
    const Sample sample(1);
    const std::string text(static_cast<std::size_t>(state.range(0)), 'm');
    const auto length = static_cast<u32>(text.size());
    for (auto _ : state) mira::SetMemoBuf(sample.h, 1, text.data(), length);
}

void plainSetMemo(benchmark::State& state) {
    const Sample sample(1);
    const std::string text(static_cast<std::size_t>(state.range(0)), 'm');
    u32 next = 1;
    for (auto _ : state) {
        std::FILE* file = openPlain(sample.memoPath());
        char header[24];
        std::fread(header, 1, sizeof header, file);
        writeAt(file, static_cast<long>(512 * next), header, 8);
        std::fwrite(text.data(), 1, text.size(), file);
        next += static_cast<u32>((text.size() + 8 + 511) / 512);
        writeAt(file, 0, &next, sizeof next);
        std::fclose(file);
    }
}

void getMemo(benchmark::State& state) {
    const Sample sample(1);
    const std::string text(static_cast<std::size_t>(state.range(0)), 'm');
    mira::SetMemo(sample.h, 1, text.c_str());
    for (auto _ : state) std::free(mira::GetMemo(sample.h, 1));
}

void plainGetMemo(benchmark::State& state) {
    const Sample sample(1);
    const std::string text(static_cast<std::size_t>(state.range(0)), 'm');
    mira::SetMemo(sample.h, 1, text.c_str());
    for (auto _ : state) {
        std::FILE* file = openPlain(sample.memoPath());
        unsigned char header[24];
        std::fread(header, 1, sizeof header, file);
        std::fseek(file, 512, SEEK_SET);
        std::fread(header, 1, 8, file);
        u32 length = 0;
        std::memcpy(&length, header + 4, sizeof length);
        char* memo = static_cast<char*>(std::malloc(length));
        memo[std::fread(memo, 1, length - 8, file)] = 0;
        std::free(memo);
        std::fclose(file);
    }
}

void deleteFirst(benchmark::State& state) {
    const Sample sample(kMoved);
    for (auto _ : state) mira::Delete(sample.h, 0);
}

void plainDeleteFirst(benchmark::State& state) {
    const Sample sample(kMoved);
    std::FILE* file = openPlain(sample.path());
    std::vector<char> buffer(kTransferSize);
    for (auto _ : state) {
        long from = kHeaderLength + static_cast<long>(kRecordLength);
        std::size_t got = kTransferSize;
        for (; got == kTransferSize; from += static_cast<long>(kTransferSize)) {
            std::fseek(file, from, SEEK_SET);
            got = std::fread(buffer.data(), 1, kTransferSize, file);
            writeAt(file, from - static_cast<long>(kRecordLength), buffer.data(), got);
        }
    }
    std::fclose(file);
}

void insertFirst(benchmark::State& state) {
    const Sample sample(kMoved);
    for (auto _ : state) mira::Insert(sample.h, 0, 0);
}

void plainInsertFirst(benchmark::State& state) {
    const Sample sample(kMoved);
    std::FILE* file = openPlain(sample.path());
    std::vector<char> buffer(kTransferSize);
    std::size_t size = kMoved * kRecordLength;
    for (auto _ : state) {
        for (std::size_t left = size; left > 0;) {
            const std::size_t chunk = left < kTransferSize ? left : kTransferSize;
            left -= chunk;
            const long from = kHeaderLength + static_cast<long>(left);
            std::fseek(file, from, SEEK_SET);
            std::fread(buffer.data(), 1, chunk, file);
            writeAt(file, from + static_cast<long>(kRecordLength), buffer.data(), chunk);
        }
        size += kRecordLength;
    }
    std::fclose(file);
}

void pack(benchmark::State& state) {
    const Sample sample(kPacked);
    for (auto _ : state) {
        state.PauseTiming();
        sample.fill(kPacked);
        mira::RefreshDatabase(sample.h);
        state.ResumeTiming();
        mira::Pack(sample.h, 1);
    }
}

int keepWriting(mira::DbfBase*) { return 0; }

/// With a hook, so that records are written one by one.
void packWithHook(benchmark::State& state) {
    const Sample sample(kPacked);
    sample.h->BeforeWrite = keepWriting;
    for (auto _ : state) {
        state.PauseTiming();
        sample.fill(kPacked);
        mira::RefreshDatabase(sample.h);
        state.ResumeTiming();
        mira::Pack(sample.h, 1);
    }
}

/// One pass through a buffer, records kept are moved together in it.
void plainPack(benchmark::State& state) {
    const Sample sample(kPacked);
    std::FILE* file = openPlain(sample.path());
    std::vector<char> buffer(kTransferSize);
    for (auto _ : state) {
        state.PauseTiming();
        sample.fill(kPacked);
        state.ResumeTiming();
        long to = kHeaderLength;
        std::size_t got = kTransferSize;
        for (long from = to; got == kTransferSize; from += static_cast<long>(kTransferSize)) {
            std::fseek(file, from, SEEK_SET);
            got = std::fread(buffer.data(), 1, kTransferSize, file);
            std::size_t kept = 0;
            for (std::size_t at = 0; at + kRecordLength <= got; at += kRecordLength) {
                if (buffer[at] == '*') continue;
                std::memmove(&buffer[kept], &buffer[at], kRecordLength);
                kept += kRecordLength;
            }
            writeAt(file, to, buffer.data(), kept);
            to += static_cast<long>(kept);
        }
        if (ftruncate(fileno(file), to) != 0) state.SkipWithError("not truncated");
    }
    std::fclose(file);
}

// The memo files and the appended table stay below the 2 GiB that a file may have.
BENCHMARK(append)->Iterations(200'000);
BENCHMARK(plainAppend)->Iterations(200'000);
BENCHMARK(setMemo)->Arg(100)->Arg(2000)->Iterations(100'000);
BENCHMARK(plainSetMemo)->Arg(100)->Arg(2000)->Iterations(100'000);
BENCHMARK(setMemo)->Arg(1 << 20)->Iterations(500);
BENCHMARK(plainSetMemo)->Arg(1 << 20)->Iterations(500);
BENCHMARK(getMemo)->Arg(100)->Arg(2000)->Arg(1 << 20);
BENCHMARK(plainGetMemo)->Arg(100)->Arg(2000)->Arg(1 << 20);
BENCHMARK(deleteFirst)->Unit(benchmark::kMillisecond);
BENCHMARK(plainDeleteFirst)->Unit(benchmark::kMillisecond);
BENCHMARK(insertFirst)->Unit(benchmark::kMillisecond);
BENCHMARK(plainInsertFirst)->Unit(benchmark::kMillisecond);
BENCHMARK(pack)->Unit(benchmark::kMillisecond);
BENCHMARK(packWithHook)->Unit(benchmark::kMillisecond);
BENCHMARK(plainPack)->Unit(benchmark::kMillisecond);

}  // namespace
