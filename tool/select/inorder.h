// Records worked on by several threads, in ranges whose results come out in order.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "select/selection.h"
#include "terminal/status.h"

namespace mira::tool {

/// How many threads work on a table, and how many records each takes at a time.
struct Cut {
    unsigned threads = 1;
    u32 records = 0;
};
/// As -j says: 0 stands for as many threads as there are processors.
unsigned threadsAsked(unsigned jobs);
/// For count records of a table, and jobs as -j says. What is read in a moment stays on one thread.
Cut cutFor(const Table& table, u32 count, unsigned jobs);
/// For tests: from now on tables are cut into ranges of so many records, however small they are.
void cutInto(u32 records);

/// The table once more for each thread, through handles and a code page of its own; fewer, or none,
/// where that cannot be or the table is another by now. Tells nothing.
std::vector<std::unique_ptr<Table>> openForThreads(const Table& table, const Cut& cut);

/// Results of ranges are handed over in pieces. A thread that has worked ahead too far waits, so
/// that only a few pieces are in memory at a time, whatever their number.
template <typename Piece>
class InOrder {
public:
    using Give = std::function<void(Piece)>;
    /// Gives the pieces of a range. What it throws is thrown by run once all pieces before it are
    /// taken.
    using Work = std::function<void(const Range&, const Give&)>;
    /// On the thread that called run; false ends the work.
    using Take = std::function<bool(Piece&)>;

    InOrder(const Range& all, const Cut& cut)
        : all_(all),
          step_(cut.records),
          count_((u64{all.end} - all.first + step_ - 1) / step_),
          slots_(cut.threads + 2) {}
    ~InOrder() {
        const std::lock_guard lock(mutex_);
        quit_ = true;
        room_.notify_all();
    }
    InOrder(const InOrder&) = delete;

    /// A thread for each worker. False, and nothing done, when there are none to be had.
    bool run(const std::vector<Work>& workers, const Take& take) {
        start(workers);
        if (threads_.empty()) return false;
        for (; taken_ < count_; advance()) {
            while (std::optional<Piece> piece = nextPiece()) {
                leaveIfStopped();
                if (!take(*piece)) return true;
            }
        }
        return true;
    }

private:
    struct Quit {};
    struct Slot {
        std::optional<Piece> piece{};
        bool done = false;
        std::exception_ptr failure{};
    };

    /// Signals go to the thread that writes, whose calls they have to interrupt.
    void start(const std::vector<Work>& workers) {
        const HoldSignals held;
        try {
            for (const Work& work : workers) {
                threads_.emplace_back([this, &work] { workThrough(work); });
            }
        } catch (const std::system_error&) {
            // The system has no more of them; those there are do all the work.
        }
    }

    void workThrough(const Work& work) {
        while (const std::optional<u64> index = claim()) {
            Slot& slot = slots_[*index % slots_.size()];
            std::exception_ptr failure;
            try {
                work(rangeOf(*index), [&](Piece piece) { give(slot, std::move(piece)); });
            } catch (...) {
                failure = std::current_exception();
            }
            const std::lock_guard lock(mutex_);
            slot.done = true;
            slot.failure = failure;
            given_.notify_one();
        }
    }

    Range rangeOf(u64 index) const {
        const u64 first = all_.first + index * step_;
        return {static_cast<u32>(first), static_cast<u32>(std::min<u64>(first + step_, all_.end))};
    }

    std::optional<u64> claim() {
        std::unique_lock lock(mutex_);
        room_.wait(lock,
                   [&] { return quit_ || next_ == count_ || next_ < taken_ + slots_.size(); });
        if (quit_ || next_ == count_) return std::nullopt;
        return next_++;
    }

    void give(Slot& slot, Piece piece) {
        std::unique_lock lock(mutex_);
        room_.wait(lock, [&] { return quit_ || !slot.piece; });
        if (quit_) throw Quit{};
        slot.piece = std::move(piece);
        given_.notify_one();
    }

    /// The next piece of the range whose turn it is; nothing at its end.
    std::optional<Piece> nextPiece() {
        std::unique_lock lock(mutex_);
        Slot& slot = slots_[taken_ % slots_.size()];
        given_.wait(lock, [&] { return slot.piece || slot.done; });
        if (!slot.piece) {
            if (slot.failure) std::rethrow_exception(slot.failure);
            return std::nullopt;
        }
        std::optional<Piece> piece = std::exchange(slot.piece, std::nullopt);
        room_.notify_all();
        return piece;
    }

    void advance() {
        const std::lock_guard lock(mutex_);
        slots_[taken_ % slots_.size()] = Slot();
        ++taken_;
        room_.notify_all();
    }

    const Range all_;
    const u32 step_;
    const u64 count_;  // of ranges

    std::mutex mutex_;  // guards what follows
    std::condition_variable given_, room_;
    std::vector<Slot> slots_;
    u64 next_ = 0;   // range to work on
    u64 taken_ = 0;  // range whose pieces are taken
    bool quit_ = false;

    std::vector<std::jthread> threads_{};  // ended before all else
};

}  // namespace mira::tool
