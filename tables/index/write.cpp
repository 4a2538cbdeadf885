// The layout is that of cdx.cpp. Pages come in the order of their making: header of the directory,
// header of every tag with its leaves and inner pages behind it, pages of the directory last. A
// page is filled before the next is begun. Keys of inner pages are the last ones of the pages
// below.
#include "tables/index/write.h"

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <numeric>
#include <vector>

#include "tables/index/compare.h"
#include "tables/index/key.h"
#include "tables/index/pages.h"
#include "tables/page/refusal.h"

namespace mira::tables {
namespace {

using index::KeyRule;

constexpr std::size_t kPage = 512, kHeader = 1024;
constexpr std::size_t kLeaf = 24, kInner = 12;
constexpr std::size_t kRootPlace = 0, kFreePlace = 4;
constexpr std::size_t kRecordBytes = 4;
constexpr unsigned kLeastRecordBits = 12, kMostRecordBits = 32;
constexpr u32 kNone = 0xFFFFFFFF;
constexpr u32 kRoot = 1, kLeafKind = 2;

void putLe(std::string& page, std::size_t at, u64 value, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        page[at + i] = static_cast<char>(value >> (8 * i) & 0xFF);
}

void appendBe32(std::string& bytes, u64 value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift & 0xFF);
    }
}

/// The file that is written, from its beginning on. Its end waits in memory.
struct Output {
    const std::string& path;  // for messages
    int descriptor;
    u64 size = 0;
    std::string waiting{};

    void put(u64 place, std::string_view bytes) {
        const u64 start = size - waiting.size();
        if (place >= start) {
            waiting.replace(static_cast<std::size_t>(place - start), bytes.size(), bytes);
        } else {
            if (place + bytes.size() > start) flush();
            write(place, bytes);
        }
    }
    u64 append(std::string_view bytes) {
        constexpr std::size_t kWaiting = 1 << 18;
        const u64 place = size;
        if (place + bytes.size() > kNone) refuse(path, ": its new index would pass 4 GB");
        if (waiting.size() >= kWaiting) flush();
        waiting += bytes;
        size += bytes.size();
        return place;
    }
    void flush() {
        write(size - waiting.size(), waiting);
        waiting.clear();
    }

private:
    void write(u64 place, std::string_view bytes) const {
        while (!bytes.empty()) {
            const ssize_t done =
                pwrite(descriptor, bytes.data(), bytes.size(), static_cast<off_t>(place));
            if (done < 0 && errno == EINTR) continue;
            if (done <= 0) {
                refuse(path, ": its new index cannot be written: ", std::strerror(errno));
            }
            place += static_cast<u64>(done);
            bytes.remove_prefix(static_cast<std::size_t>(done));
        }
    }
};

/// Keys of one length, each with its record behind it (big-endian), in order.
struct Entries {
    std::size_t keyLength = 0;
    std::string bytes{};
    std::vector<u32> order{};

    std::string_view at(std::size_t number) const {
        const std::size_t step = keyLength + kRecordBytes;
        return std::string_view(bytes).substr(order[number] * step, step);
    }
    std::string_view key(std::size_t number) const { return at(number).substr(0, keyLength); }
    u32 record(std::size_t number) const { return index::be32(at(number), keyLength); }
    void add(std::string_view key, u32 record) {
        order.push_back(static_cast<u32>(order.size()));
        bytes += key;
        appendBe32(bytes, record);
    }
    /// step: called every now and then; may throw.
    void sort(const index::Step& step) {
        constexpr u64 kCompared = 1U << 16;
        const std::size_t size = keyLength + kRecordBytes;
        u64 compared = 0;
        std::sort(order.begin(), order.end(), [&](u32 a, u32 b) {
            if (step && ++compared % kCompared == 0) step();
            return std::memcmp(bytes.data() + a * size, bytes.data() + b * size, size) < 0;
        });
    }
    /// Of entries with the same key only the first stays.
    void makeUnique() {
        const auto same = [&](u32 a, u32 b) {
            const std::size_t step = keyLength + kRecordBytes;
            return std::memcmp(bytes.data() + a * step, bytes.data() + b * step, keyLength) == 0;
        };
        order.erase(std::unique(order.begin(), order.end(), same), order.end());
    }
};

/// How the counts and the record of an entry share its bytes.
struct Packing {
    unsigned countBits, recordBits;
    std::size_t bytes;
};

Packing packingFor(std::size_t keyLength, u64 greatest) {
    const unsigned countBits = static_cast<unsigned>(std::bit_width(keyLength));
    const unsigned needed =
        std::max(kLeastRecordBits, static_cast<unsigned>(std::bit_width(greatest)));
    const std::size_t bytes = (needed + 2 * countBits + 7) / 8;
    const unsigned all = static_cast<unsigned>(8 * bytes) - 2 * countBits;
    return {countBits, std::min(all, kMostRecordBits), bytes};
}

/// A page that is written, for the level above it.
struct Below {
    u64 place;
    std::size_t last;  // number of its last entry
};

std::string pageOf(u32 kind, std::size_t count, u32 left) {
    std::string page(kPage, '\0');
    putLe(page, 0, kind, 2);
    putLe(page, 2, count, 2);
    putLe(page, 4, left, 4);
    putLe(page, 8, kNone, 4);
    return page;
}

struct Shortened {
    std::size_t duplicate, trailing;
};

Shortened shorten(std::string_view key, std::string_view before, char filler) {
    std::size_t length = key.size();
    while (length > 0 && key[length - 1] == filler) --length;
    std::size_t same = 0;
    const std::size_t limit = std::min(length, before.size());
    while (same < limit && key[same] == before[same]) ++same;
    return {same, key.size() - length};
}

/// As many entries from a number on as one leaf holds; returns the number after the last.
std::size_t fillLeaf(const Entries& entries, std::size_t from, const Packing& packing, char filler,
                     std::string& page) {
    std::size_t end = kPage, entry = kLeaf, number = from;
    for (; number < entries.order.size(); ++number) {
        const std::string_view key = entries.key(number);
        const std::string_view before =
            number == from ? std::string_view() : entries.key(number - 1);
        const Shortened cut = shorten(key, before, filler);
        const std::size_t length = key.size() - cut.duplicate - cut.trailing;
        if (entry + packing.bytes + length > end) break;
        end -= length;
        std::memcpy(page.data() + end, key.data() + cut.duplicate, length);
        const u64 counts = cut.duplicate | static_cast<u64>(cut.trailing) << packing.countBits;
        putLe(page, entry, entries.record(number) | counts << packing.recordBits, packing.bytes);
        entry += packing.bytes;
    }
    putLe(page, 2, number - from, 2);
    putLe(page, 12, end - entry, 2);
    return number;
}

void putPacking(std::string& page, const Packing& packing) {
    const u64 countMask = (u64{1} << packing.countBits) - 1;
    putLe(page, 14, (u64{1} << packing.recordBits) - 1, 4);
    putLe(page, 18, countMask, 1);
    putLe(page, 19, countMask, 1);
    putLe(page, 20, packing.recordBits, 1);
    putLe(page, 21, packing.countBits, 1);
    putLe(page, 22, packing.countBits, 1);
    putLe(page, 23, packing.bytes, 1);
}

/// Appends a page behind its left neighbour, which is told of it.
u64 appendPage(Output& output, const std::string& page, const std::vector<Below>& level) {
    const u64 place = output.append(page);
    if (!level.empty()) {
        std::string right(4, '\0');
        putLe(right, 0, place, 4);
        output.put(level.back().place + 8, right);
    }
    return place;
}

u32 leftOf(const std::vector<Below>& level) {
    return level.empty() ? kNone : static_cast<u32>(level.back().place);
}

std::vector<Below> writeLeaves(Output& output, const Entries& entries, char filler) {
    u64 greatest = 0;
    for (std::size_t i = 0; i < entries.order.size(); ++i) {
        greatest = std::max<u64>(greatest, entries.record(i));
    }
    const Packing packing = packingFor(entries.keyLength, greatest);
    std::vector<Below> level;
    std::size_t next = 0;
    do {
        std::string page = pageOf(kLeafKind, 0, leftOf(level));
        putPacking(page, packing);
        next = fillLeaf(entries, next, packing, filler, page);
        level.push_back({appendPage(output, page, level), next == 0 ? 0 : next - 1});
    } while (next < entries.order.size());
    return level;
}

std::vector<Below> writeInner(Output& output, const Entries& entries,
                              const std::vector<Below>& below) {
    const std::size_t most = (kPage - kInner) / (entries.keyLength + 8);
    std::vector<Below> level;
    for (std::size_t first = 0; first < below.size(); first += most) {
        const std::size_t count = std::min(most, below.size() - first);
        std::string keys;
        for (std::size_t i = first; i < first + count; ++i) {
            keys += entries.at(below[i].last);
            appendBe32(keys, below[i].place);
        }
        std::string page = pageOf(0, count, leftOf(level));
        page.replace(kInner, keys.size(), keys);
        level.push_back({appendPage(output, page, level), below[first + count - 1].last});
    }
    return level;
}

/// Writes a tree; returns the place of its root.
u64 writeTree(Output& output, const Entries& entries, char filler) {
    std::vector<Below> level = writeLeaves(output, entries, filler);
    u32 kind = kRoot | kLeafKind;
    for (; level.size() > 1; kind = kRoot) level = writeInner(output, entries, level);
    std::string mark(2, '\0');
    putLe(mark, 0, kind, 2);
    output.put(level.front().place, mark);
    return level.front().place;
}

/// The header of the old file, with the root of the new one and no free pages.
void putHeader(Output& output, const IndexFile& old, u64 oldPlace, u64 place, u64 root) {
    std::string header = index::bytesAt(old, oldPlace, kHeader);
    putLe(header, kRootPlace, root, 4);
    putLe(header, kFreePlace, 0, 4);
    output.put(place, header);
}

/// Tags whose entries are in memory together.
struct Batch {
    std::vector<KeyRule> rules{};
    std::vector<Entries> entries{};
};

constexpr std::size_t kMostBytes = std::size_t{1} << 28;  // unless one tag alone needs more

KeyRule ruleFor(const Table& table, const IndexFile& old, const Tag& tag) {
    try {
        return index::ruleOf(table, old, tag);
    } catch (const index::NotComputed& reason) {
        refuse(old.path, ": cannot be rebuilt: tag ", tag.name, ": not computed: ", reason.what());
    }
}

/// Those from first on, by one pass through the table.
Batch readBatch(const Table& table, const IndexFile& old, std::size_t first,
                const index::Step& step) {
    Batch batch;
    std::size_t bytes = 0;
    for (std::size_t i = first; i < old.tags.size(); ++i) {
        KeyRule rule = ruleFor(table, old, old.tags[i]);
        bytes += (rule.length + 2 * kRecordBytes) * reccount(table.base.get());
        if (bytes > kMostBytes && i != first) break;
        batch.entries.push_back({rule.length});
        batch.rules.push_back(std::move(rule));
    }
    std::vector<const KeyRule*> rules;
    for (const KeyRule& rule : batch.rules) rules.push_back(&rule);
    index::eachKey(table, rules, step, [&](std::size_t number, std::string_view key, u32 record) {
        batch.entries[number].add(key, record);
    });
    return batch;
}

/// A file that is written, and what its directory is to hold.
struct Rebuilt {
    const IndexFile& old;
    Output output;
    Entries names;

    Rebuilt(const IndexFile& file, int descriptor)
        : old(file), output{file.path, descriptor}, names{file.nameLength} {
        if (old.isCompound) output.append(std::string(kHeader, '\0'));
    }

    void add(const Tag& tag, const Entries& entries, char filler) {
        const u64 place = output.append(std::string(kHeader, '\0'));
        putHeader(output, old, tag.header, place, writeTree(output, entries, filler));
        std::string name = tag.name;
        name.resize(old.nameLength, ' ');
        names.add(name, static_cast<u32>(place));
    }

    void finish() {
        if (old.isCompound) putHeader(output, old, 0, 0, writeTree(output, names, ' '));
        output.flush();
    }
};

void addTags(Rebuilt& made, const Table& table, const index::Step& step) {
    for (std::size_t done = 0; done < made.old.tags.size();) {
        Batch batch = readBatch(table, made.old, done, step);
        for (std::size_t i = 0; i < batch.rules.size(); ++i, ++done) {
            Entries entries = std::move(batch.entries[i]);
            const Tag& tag = made.old.tags[done];
            entries.sort(step);
            if (tag.unique) entries.makeUnique();
            made.add(tag, entries, fillerOf(batch.rules[i]));
        }
    }
}

}  // namespace

void writeIndex(const Table& table, const IndexFile& old, int descriptor,
                const std::function<void()>& step) {
    Rebuilt made(old, descriptor);
    addTags(made, table, step);
    made.names.sort(step);
    made.finish();
}

void rewriteIndex(const IndexFile& old, char filler, int descriptor) {
    Rebuilt made(old, descriptor);
    for (const Tag& tag : old.tags) {
        Entries entries{tag.keyLength};
        eachEntry(old, tag, filler, [&](std::string_view key, u32 record) {
            entries.add(key, record);
            return true;
        });
        made.add(tag, entries, filler);
    }
    made.finish();
}

}  // namespace mira::tables
