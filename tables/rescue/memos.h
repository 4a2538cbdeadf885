// The memo file of a damaged table. How long its blocks are and where the first one lies is tried
// on the references of the records; how far the file is theirs, on whether they lead to where one
// memo after the other begins.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tables/column/column.h"
#include "tables/rescue/source.h"
#include "tables/value/memo.h"

namespace mira::tables {

class DamagedMemos {
public:
    /// path: empty when the file is missing. unit: bytes per block; 0: what the header says, or
    /// else what fits. isText: the table has come through a transfer as text, and so has this.
    /// step: called every now and then; may throw.
    DamagedMemos(const std::string& path, MemoFormat format, u32 unit, bool isText,
                 std::function<void()> step);

    /// To be told every reference before the first memo is read.
    void add(MemoReference reference) { references_.push_back(reference); }
    /// The same of records that are doubtful.
    void addDoubtful(MemoReference reference) { others_.push_back(reference.block); }
    /// Decides; what came of it, a sentence each.
    std::vector<std::string> settle();

    enum class Found : u8 { Lost, Doubtful, Sound };
    Found read(MemoReference reference, std::string& bytes);
    /// Bytes per block for the new file.
    u32 unit() const { return plan_.unit; }

private:
    /// Where blocks lie: a header that is not there makes all of them begin earlier.
    struct Plan {
        u32 unit = 0;
        u32 lacking = 0;
    };
    /// A memo's bytes in the file.
    struct Extent {
        u64 first = 0, end = 0;
        bool whole = false;
    };
    /// How the references go with the file.
    struct Accord {
        u64 whole = 0;            ///< lead to whole memos
        u64 off = 0;              ///< lead to where no memo begins
        bool lastIsHeld = true;   ///< the memo that was written last is referred to
        u64 memos = 0, held = 0;  ///< in the file, and of them those that are referred to
        u64 blocks = 0;           ///< of the file
        bool mayBeChance() const;
        bool isFull(u64 count) const { return whole == count && off == 0 && lastIsHeld; }
        /// Whether these references go better with the file than the others did.
        bool gain(const Accord& other, bool alsoSame) const {
            const bool same = whole == other.whole && off == other.off;
            return whole > other.whole || (whole == other.whole && off < other.off) ||
                   (same && alsoSame);
        }
    };

    u32 headerNumber(u32 place, u32 size);
    std::optional<Extent> extentAt(u64 place, u32 length);
    std::optional<Extent> extentOf(const Plan& plan, MemoReference reference);
    u64 markedEnd(u64 place);
    u64 whole(const Plan& plan);
    bool isInHeader(const Plan& plan, MemoReference reference) const;
    std::vector<u32> units(u32 said) const;
    u32 saidUnit();
    u64 choose();
    u64 meant() const;
    std::vector<u64> places() const;
    void follow(Accord& accord);
    Accord tryAll();
    bool undoTextEnds(Accord& accord);

    const std::string path_;
    std::optional<Source> source_;
    const MemoFormat format_;
    const u32 wanted_;
    const bool isText_;
    const std::function<void()> step_;
    Plan plan_;
    std::vector<MemoReference> references_;
    std::vector<u32> others_;  ///< blocks
    bool doubtful_ = false;
    u64 passed_ = 0;  ///< memos
};

}  // namespace mira::tables
