#include "tables/change/journal.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "tables/page/bytes.h"
#include "tables/page/refusal.h"

namespace mira::tables {
namespace {

constexpr std::string_view kSign = "MIRAjrnl";
constexpr u32 kFormat = 1;
constexpr std::size_t kHead = 16;
constexpr std::size_t kEntry = 32;
constexpr std::size_t kSummed = 28;  // bytes of an entry's head under its own checksum
constexpr u64 kFileMost = 0x7FFFFFFF;
constexpr u32 kBackupBit = 1;

constexpr auto kCrc = [] {
    std::array<std::array<u32, 256>, 8> table{};
    for (u32 i = 0; i < 256; ++i) {
        u32 sum = i;
        for (int bit = 0; bit < 8; ++bit) sum = sum >> 1 ^ ((sum & 1) != 0 ? 0xEDB88320U : 0);
        table[0][i] = sum;
    }
    for (std::size_t step = 1; step < table.size(); ++step) {
        for (u32 i = 0; i < 256; ++i) {
            const u32 before = table[step - 1][i];
            table[step][i] = before >> 8 ^ table[0][before & 0xFF];
        }
    }
    return table;
}();

template <typename T>
void put(std::string& to, T value) {
    const auto bytes = bytesLe(value);
    to.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

/// Reads forward through a file, many bytes at a time.
class Forward {
public:
    explicit Forward(int descriptor) : descriptor_(descriptor) {}

    bool read(u64 place, void* to, std::size_t count) {
        auto* bytes = static_cast<char*>(to);
        while (count != 0) {
            if (place < start_ || place >= start_ + buffer_.size()) {
                if (!fill(place)) return false;
            }
            const auto skip = static_cast<std::size_t>(place - start_);
            const std::size_t part = std::min(count, buffer_.size() - skip);
            std::memcpy(bytes, buffer_.data() + skip, part);
            bytes += part;
            place += part;
            count -= part;
        }
        return true;
    }

private:
    static constexpr std::size_t kChunk = 1 << 18;

    bool fill(u64 place) {
        buffer_.resize(kChunk);
        ssize_t got = 0;
        do {
            got = pread(descriptor_, buffer_.data(), kChunk, static_cast<off_t>(place));
        } while (got < 0 && errno == EINTR);
        buffer_.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        start_ = place;
        return got > 0;
    }

    int descriptor_;
    std::string buffer_;
    u64 start_ = 0;
};

/// An entry's head.
struct Head {
    char kind;
    FileOf file;
    u32 oldSize, newSize;
    u64 place;
    u64 at;  ///< of the old bytes
};

/// Goes through the entries that are whole.
class Entries {
public:
    Entries(int descriptor, u32 seed, u64 size) : from_(descriptor), seed_(seed), size_(size) {}

    std::optional<Head> next() {
        char bytes[kEntry];
        if (size_ - at_ < kEntry || !from_.read(at_, bytes, kEntry)) return std::nullopt;
        if (loadLe<u32>(bytes + kSummed) != checksum(seed_, bytes, kSummed)) return std::nullopt;
        const Head head{bytes[0],
                        static_cast<FileOf>(bytes[1]),
                        loadLe<u32>(bytes + 4),
                        loadLe<u32>(bytes + 16),
                        loadLe<u64>(bytes + 8),
                        at_ + kEntry};
        if (u64{head.oldSize} + head.newSize > size_ - head.at) return std::nullopt;
        if (!isWhole(head.at, head.oldSize, loadLe<u32>(bytes + 20)) ||
            !isWhole(head.at + head.oldSize, head.newSize, loadLe<u32>(bytes + 24))) {
            return std::nullopt;
        }
        at_ = head.at + head.oldSize + head.newSize;
        return head;
    }

    /// Bytes of an entry that is a short one.
    std::string text(u64 at, u32 size) {
        constexpr u32 kLongest = 4096;
        std::string bytes(std::min(size, kLongest), '\0');
        from_.read(at, bytes.data(), bytes.size());
        return bytes;
    }

private:
    bool isWhole(u64 at, u32 size, u32 wanted) {
        u32 sum = seed_;
        char chunk[4096];
        while (size != 0) {
            const u32 part = std::min<u32>(size, sizeof chunk);
            if (!from_.read(at, chunk, part)) return false;
            sum = checksum(sum, chunk, part);
            at += part;
            size -= part;
        }
        return sum == wanted;
    }

    Forward from_;
    u32 seed_;
    u64 size_;
    u64 at_ = kHead;
};

void readBegin(Journal& journal, const Head& head, const std::string& name) {
    journal.tableThere = (head.place & 1) != 0;
    journal.memosThere = (head.place & 2) != 0;
    journal.memoName = name;
    journal.state = Journal::State::Building;
}

bool readChange(Journal& journal, const Head& head, const std::string& sizes) {
    constexpr std::size_t kSizes = 16;
    if (sizes.size() != kSizes) return false;
    journal.tableSize = journal.tableLimit = loadLe<u64>(sizes.data());
    journal.memoSize = journal.memoLimit = loadLe<u64>(sizes.data() + 8);
    journal.headerLength = static_cast<u32>(head.place & 0xFFFF);
    journal.recordLength = static_cast<u32>(head.place >> 16 & 0xFFFF);
    journal.state = Journal::State::Changing;
    return journal.tableSize <= kFileMost && journal.memoSize <= kFileMost &&
           journal.recordLength != 0;
}

bool readPiece(Journal& journal, const Head& head) {
    const bool table = head.file == FileOf::Table;
    if (!table && !journal.memosThere) return false;
    const u64 before = table ? journal.tableSize : journal.memoSize;
    const u64 limit = table ? journal.tableLimit : journal.memoLimit;
    if (head.place > kFileMost || head.newSize > kPieceMost) return false;
    if (head.place + head.newSize > limit) return false;
    // Only what lies behind the old end has no old bytes.
    if (head.oldSize > head.newSize) return false;
    if (head.oldSize < head.newSize && head.place + head.oldSize < before) return false;
    journal.pieces.push_back({head.file, head.place, head.oldSize, head.newSize, head.at});
    return true;
}

bool readLimit(Journal& journal, const Head& head) {
    u64& limit = head.file == FileOf::Table ? journal.tableLimit : journal.memoLimit;
    if (head.place < limit || head.place > 2 * kFileMost) return false;
    limit = head.place;
    return true;
}

bool readSwap(Journal& journal, const Head& head, std::string oldMemo, std::string newMemo) {
    SwapPlan& plan = journal.swap;
    plan.number = static_cast<u32>(head.place & 0xFF);
    plan.newMemoKind = static_cast<int>(head.place >> 8 & 0xFF) - 1;
    plan.backup = (head.place >> 16 & kBackupBit) != 0;
    plan.oldTable = journal.tableThere;
    plan.oldMemos = journal.memosThere;
    plan.oldMemo = std::move(oldMemo);
    plan.newMemo = std::move(newMemo);
    plan.index = journal.index.name;
    journal.state = head.kind == 'X' ? Journal::State::Exchanging : Journal::State::Swapping;
    return plan.number <= kBackupsMost && plan.newMemoKind < 3;
}

bool readIndex(Journal& journal, const Head& head, std::string name, const std::string& sum) {
    if (!journal.index.name.empty() || name.empty() || sum.size() != sizeof(u32)) return false;
    journal.index = {std::move(name), head.place, loadLe<u32>(sum.data())};
    return true;
}

/// Takes an entry in; false when it cannot stand where it stands.
bool take(Journal& journal, const Head& head, Entries& entries) {
    using State = Journal::State;
    if (head.file != FileOf::Table && head.file != FileOf::Memos) return false;
    const auto oldBytes = [&] { return entries.text(head.at, head.oldSize); };
    const auto newBytes = [&] { return entries.text(head.at + head.oldSize, head.newSize); };
    const State state = journal.state;
    const bool isOpen = state == State::Building || state == State::Changing;
    switch (head.kind) {
        case 'B':
            if (state != State::Dead) return false;
            readBegin(journal, head, oldBytes());
            return true;
        case 'C':
            return state == State::Building && readChange(journal, head, oldBytes());
        case 'L':
            return state == State::Changing && readLimit(journal, head);
        case 'P':
            return state == State::Changing && readPiece(journal, head);
        case 'X':
        case 'S':
            return (state == State::Building || (state == State::Exchanging && head.kind == 'S')) &&
                   readSwap(journal, head, oldBytes(), newBytes());
        case 'I':
            return isOpen && readIndex(journal, head, oldBytes(), newBytes());
        case 'D':
            journal.state = State::Placing;
            return isOpen && !journal.index.name.empty();
        default:
            return false;
    }
}

bool namesFit(const Journal& journal, const ChangeNames& names) {
    const auto fits = [&](const std::string& name) {
        return name.empty() || names.isMemoName(name);
    };
    if (!fits(journal.memoName) || (journal.memosThere && journal.memoName.empty())) return false;
    const SwapPlan& swap = journal.swap;
    if (!journal.index.name.empty() && !names.isIndexName(journal.index.name)) return false;
    return fits(swap.oldMemo) && fits(swap.newMemo) &&
           (swap.newMemoKind < 0 || !swap.newMemo.empty()) &&
           (!swap.oldMemos || journal.state < Journal::State::Exchanging ||
            swap.oldMemo == journal.memoName);
}

}  // namespace

u32 checksum(u32 from, const void* bytes, std::size_t count) {
    const auto* at = static_cast<const u8*>(bytes);
    u32 sum = ~from;
    for (; count >= 8; at += 8, count -= 8) {
        const u32 low = loadLe<u32>(at) ^ sum, high = loadLe<u32>(at + 4);
        sum = kCrc[7][low & 0xFF] ^ kCrc[6][low >> 8 & 0xFF] ^ kCrc[5][low >> 16 & 0xFF] ^
              kCrc[4][low >> 24] ^ kCrc[3][high & 0xFF] ^ kCrc[2][high >> 8 & 0xFF] ^
              kCrc[1][high >> 16 & 0xFF] ^ kCrc[0][high >> 24];
    }
    for (; count != 0; ++at, --count) sum = sum >> 8 ^ kCrc[0][(sum ^ *at) & 0xFF];
    return ~sum;
}

JournalWriter::JournalWriter(const ChangeNames& names) : path_(names.journal()) {
    file_ = openPlain(path_, O_RDWR | O_CREAT | O_EXCL);
    if (!file_ && errno == EEXIST) refuseBusy(names.table);
    if (!file_) {
        refuse(names.table,
               ": cannot be changed, since no file can be made beside it: ", std::strerror(errno));
    }
    // Whoever recovers may have taken it for abandoned before it was locked.
    if (takeLock(file_.number()) == Lock::Busy || !isNamed(file_.number(), path_)) {
        refuseBusy(names.table);
    }
    if (getrandom(&seed_, sizeof seed_, GRND_NONBLOCK) != sizeof seed_) seed_ = 0;
    pending_.assign(kSign);
    put(pending_, kFormat);
    put(pending_, seed_);
}

u64 JournalWriter::add(char kind, FileOf file, u64 place, std::string_view oldBytes,
                       std::string_view newBytes) {
    const std::size_t start = pending_.size();
    pending_ += kind;
    pending_ += static_cast<char>(file);
    put(pending_, u16{0});
    put(pending_, static_cast<u32>(oldBytes.size()));
    put(pending_, place);
    put(pending_, static_cast<u32>(newBytes.size()));
    put(pending_, checksum(seed_, oldBytes.data(), oldBytes.size()));
    put(pending_, checksum(seed_, newBytes.data(), newBytes.size()));
    put(pending_, checksum(seed_, pending_.data() + start, kSummed));
    pending_.append(oldBytes).append(newBytes);
    return written_ + start + kEntry;
}

bool JournalWriter::synchronise() {
    if (!pending_.empty()) {
        if (!writeAt(file_.number(), written_, pending_.data(), pending_.size())) return false;
        if (fsync(file_.number()) != 0) return false;
        written_ += pending_.size();
        pending_.clear();
    }
    named_ = named_ || syncFolderOf(path_);
    return named_;
}

bool JournalWriter::takeBack() {
    pending_.assign(pending_.size(), '\0');
    const bool done = writeAt(file_.number(), written_, pending_.data(), pending_.size()) &&
                      fsync(file_.number()) == 0;
    pending_.clear();
    return done;
}

bool JournalWriter::readOld(const Piece& piece, std::string& bytes) const {
    bytes.resize(piece.oldSize);
    return readAt(file_.number(), piece.at, bytes.data(), bytes.size());
}

bool JournalWriter::end() { return endJournal(file_.number(), path_); }

bool endJournal(int descriptor, const std::string& path) {
    const std::string zeros(kSign.size(), '\0');
    const bool zeroed = writeAt(descriptor, 0, zeros.data(), zeros.size());
    const bool removed = unlink(path.c_str()) == 0;
    syncFolderOf(path);
    return zeroed || removed;
}

Journal readJournal(int descriptor, const ChangeNames& names) {
    Journal journal;
    const auto info = statusOf(descriptor);
    char head[kHead] = {};
    const u64 size = info ? static_cast<u64>(info->st_size) : 0;
    readAt(descriptor, 0, head, static_cast<std::size_t>(std::min<u64>(size, kHead)));
    bool whole = size >= kHead;
    for (std::size_t i = 0; i < std::min<u64>(size, kSign.size()); ++i) {
        // A sign that is written, or zeroed, in part.
        if (head[i] != kSign[i] && head[i] != 0) journal.state = Journal::State::Foreign;
        whole = whole && head[i] == kSign[i];
    }
    if (!whole || journal.state == Journal::State::Foreign) return journal;
    if (loadLe<u32>(head + 8) != kFormat) {
        journal.state = Journal::State::Foreign;
        return journal;
    }
    Entries entries(descriptor, loadLe<u32>(head + 12), size);
    while (const std::optional<Head> entry = entries.next()) {
        if (take(journal, *entry, entries)) continue;
        journal.state = Journal::State::Foreign;
        return journal;
    }
    if (!namesFit(journal, names)) journal.state = Journal::State::Foreign;
    return journal;
}

void addSwap(JournalWriter& journal, char kind, const SwapPlan& plan) {
    const u64 place = plan.number | static_cast<u64>(plan.newMemoKind + 1) << 8 |
                      static_cast<u64>(plan.backup ? kBackupBit : 0) << 16;
    journal.add(kind, FileOf::Table, place, plan.oldMemo, plan.newMemo);
}

void addIndex(JournalWriter& journal, const OldIndex& index) {
    const auto sum = bytesLe(index.sum);
    journal.add('I', FileOf::Table, index.size, index.name,
                {reinterpret_cast<const char*>(sum.data()), sum.size()});
}

}  // namespace mira::tables
