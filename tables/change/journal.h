// The journal of a change: what it takes to undo, or to finish, a change that was interrupted.
// Integers are little-endian.
//
//   0    8   sign: "MIRAjrnl"; zeros once the change is done
//   8    4   format number, 1
//   12   4   a number by chance, which every checksum of this journal begins with
//   16       entries, one after the other
//
// An entry:
//
//   0    1   kind
//   1    1   file: 0 table, 1 memo file
//   2    2   zero
//   4    4   how many old bytes
//   8    8   place
//   16   4   how many new bytes
//   20   4   checksum of the old bytes
//   24   4   checksum of the new bytes
//   28   4   checksum of the 28 bytes before
//   32       old bytes, new bytes
//
//   kind          place                       old bytes               new bytes
//   "B" begin     1 there is a table,         file name of its
//                 + 2 and a memo file         memo file
//   "C" change    header length + 65536 *     sizes of table and
//                 record length               memo file, 8 bytes each
//   "L" limit     the most that the file's
//                 size may come to
//   "P" piece     offset in the file          what was there          what is written
//   "X" take out  backup number + 256 * kind  file name of the memo   file name that the
//   "S" swap      of new memo file + 65536 *  file that is there      new one takes
//                 (1 make a backup)
//   "I" index     size of the index     file name of the        checksum of the index
//                 file that is there    index file              file, 4 bytes
//   "D" done
//
// Kinds of new memo files: 0 none, 1 .dbt, 2 .fpt, 3 .smt.
//
// The first entry is "B". While nothing else follows, only new files are being built. From "C" on
// the change is in place, and undone by the pieces, last to first. "I" says that an index file has
// been built anew. From "S" on new files take the place of old ones, and from "D" on the new index
// file does so alone, and recovery goes forward. An entry counts if it and all before it are whole.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tables/change/disk.h"
#include "tables/change/names.h"

namespace mira::tables {

/// Begun with the number of a journal; goes on where it has ended before.
u32 checksum(u32 from, const void* bytes, std::size_t count);

enum class FileOf : u8 { Table, Memos };

/// Which files take which places.
struct SwapPlan {
    bool backup = true;     ///< the old files become a backup; else they go
    u32 number = 0;         ///< of that backup
    bool oldMemos = false;  ///< the old table has a memo file
    std::string oldMemo{};  ///< its file name
    int newMemoKind = -1;   ///< which of ChangeNames::newMemos the new table has; -1: none
    std::string newMemo{};  ///< file name that it takes
    bool oldTable = true;   ///< there is a table to be replaced
    std::string index{};    ///< file name that the new index takes; empty: there is none
};

/// An index file, as it is before a new one takes its name.
struct OldIndex {
    std::string name{};  ///< empty: no index is made anew
    u64 size = 0;
    u32 sum = 0;
};

/// Bytes of a file that are written over, or written for the first time.
struct Piece {
    FileOf file;
    u64 place;
    u32 oldSize, newSize;  ///< what is new and not old lies behind the old end of the file
    u64 at;                ///< of the old bytes in the journal; the new ones follow
};

/// The most bytes of one.
constexpr std::size_t kPieceMost = 1 << 20;

class JournalWriter {
public:
    /// Makes the journal of a table and takes its lock. Throws a Refusal: the folder cannot be
    /// written, or another program changes the table.
    explicit JournalWriter(const ChangeNames& names);
    JournalWriter(JournalWriter&&) = default;

    /// Adds an entry, which is in the file only after synchronise. The place of its old bytes.
    u64 add(char kind, FileOf file, u64 place, std::string_view oldBytes,
            std::string_view newBytes);
    bool isPending() const { return !pending_.empty(); }
    std::size_t pendingSize() const { return pending_.size(); }
    /// Brings everything added to the disk, the name of the journal, too.
    bool synchronise();
    /// Takes back what synchronise could not bring to the disk; false when it may be there.
    bool takeBack();
    /// Old bytes of a piece.
    bool readOld(const Piece& piece, std::string& bytes) const;
    /// The change is done, or undone: the journal ends. False when it is still there as it was.
    bool end();

private:
    std::string path_;
    Descriptor file_;
    u32 seed_ = 0;
    u64 written_ = 0;
    std::string pending_;
    bool named_ = false;  ///< its name is on the disk
};

/// Ends a journal: zeros for its sign, then its name goes. False when neither could be done.
bool endJournal(int descriptor, const std::string& path);

/// A journal as it was found.
struct Journal {
    enum class State : u8 {
        Dead,        ///< nothing has been touched, or all is done
        Foreign,     ///< no journal, or of a later version
        Building,    ///< only new files
        Changing,    ///< in place
        Placing,     ///< the change is done, its new index file takes its place
        Exchanging,  ///< new files still have the names of a backup
        Swapping     ///< new files take their places
    };
    State state = State::Dead;
    bool tableThere = false, memosThere = false;
    std::string memoName{};
    u64 tableSize = 0, memoSize = 0;    ///< before
    u64 tableLimit = 0, memoLimit = 0;  ///< the most that the change has made of them
    u32 headerLength = 0, recordLength = 0;
    SwapPlan swap{};
    OldIndex index{};
    std::vector<Piece> pieces{};
};

/// Reads the entries that are whole. What does not fit together makes it Foreign.
Journal readJournal(int descriptor, const ChangeNames& names);

/// The entry of a swap.
void addSwap(JournalWriter& journal, char kind, const SwapPlan& plan);
/// That of a new index file.
void addIndex(JournalWriter& journal, const OldIndex& index);

}  // namespace mira::tables
