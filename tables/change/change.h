// A change of records in place: all of it or nothing.
//
// What is to be written waits in memory. Before any of it goes into the files, the old bytes it
// replaces are on the disk in the journal, and so is the size that the files may reach. A small
// change is written in one go when it is committed, a large one in pieces on the way.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tables/change/journal.h"
#include "tables/change/names.h"
#include "tables/change/newindex.h"
#include "tables/column/column.h"
#include "tables/store/store.h"

namespace mira::tables {

/// The backup copies that a change makes first.
struct BackupPlan {
    bool wanted = true;
    u32 copies = 3;  ///< how many are kept, the new one included
};

/// What a change has touched of the records, by which is told what it has made stale.
struct Touched {
    bool records = false;        ///< some have come, gone or moved
    bool marks = false;          ///< deletion marks
    std::vector<u32> offsets{};  ///< of fields in the record
};

class Change {
public:
    /// Begins to change a table of openForChange: makes the journal and the backups. Throws a
    /// Refusal; nothing is changed then.
    Change(Table& table, const BackupPlan& backups);
    /// Undoes what is not committed.
    ~Change();
    Change(const Change&) = delete;
    /// Has an index made anew when the change is committed.
    void reindex(IndexPlan plan) { index_ = std::move(plan); }

    /// Puts an encoded value into RecordBuffer, and its memo into the memo file. Throws a Refusal.
    void put(const Column& column, const Encoded& encoded);
    /// Reads a record, from 0, as the change has left it. Throws a Refusal.
    void readRecord(u32 record);
    /// Writes RecordBuffer over a record, from 0. Throws a Refusal.
    void writeRecord(u32 record);
    /// Writes a deletion mark alone: '*' or ' '. Throws a Refusal.
    void writeMark(u32 record, char mark);
    /// Writes RecordBuffer after the last record. Throws a Refusal.
    void appendRecord();

    /// Tells that records written as wholes have other deletion marks now.
    void touchMarks() { touched_.marks = true; }
    const Touched& touched() const { return touched_; }

    /// Brings what waits into the files, so that whoever reads them sees it. Throws a Refusal.
    void flush();
    /// Sets mark number. A mark of that number or above is forgotten.
    void mark(int number);
    /// Forgets marks from number on.
    void release(int number);
    /// Undoes what came after the oldest mark of number or above, which stays under number; after
    /// the beginning where there is none. Throws a Refusal when that cannot be done.
    void undoTo(int number);

    /// Counters, header and everything else to the disk, the new index, too. Throws a Refusal; undo
    /// is still possible.
    void prepare();
    /// After prepare: ends the journal, and with it the change. False when the journal cannot be
    /// ended; the change is to be undone then. Throws a Refusal when recovery has to go on.
    bool finish();
    /// Both; what fails is undone. Throws a Refusal.
    void commit();
    /// Puts everything back. Empty, or why that has to wait for the next opening: a sentence.
    std::string undo();

private:
    /// Something that waits to be written.
    struct Waiting {
        u64 place;
        std::size_t at, size;  ///< in the file's bytes
    };
    /// What is known of one of the two files.
    struct File {
        int descriptor = -1;
        u64 sizeBefore = 0;
        u64 limit = 0;    ///< in the journal
        u64 written = 0;  ///< its size by now
        u64 end = 0;      ///< its size when all that waits is written
        bool touched = false;
        bool sealed = false;  ///< what comes next is a piece of its own
        std::vector<Waiting> waiting{};
        std::string bytes{};
        std::map<u64, u64> extents{};  ///< of what waits: place and end
    };
    /// What a mark goes back to.
    struct State {
        int number = 0;
        std::size_t waiting[2] = {}, bytes[2] = {};
        u64 ends[2] = {};
        std::size_t pieces = 0;
        DbfHeader header{};
        u32 memoNext = 0;
        std::vector<u32> nextValues{};
    };

    void begin();
    void cutStray();
    void openMemoFile();
    void findMemoPlace(const Column& column);
    u32 appendMemo(const Column& column, std::string_view bytes);
    void add(FileOf to, u64 place, std::string_view bytes);
    void addPieces(FileOf from, std::size_t first, std::size_t last);
    void addPiece(FileOf to, u64 place, u32 oldSize, std::string_view bytes);
    void addWaiting();
    void raiseLimits(bool last);
    void write(bool last);
    bool writeOut(FileOf file, u64 place, std::string_view bytes);
    bool putBack(const State& state);
    void addHeader();
    bool end();
    State stateNow(int number) const;
    void restore(const State& state);
    [[noreturn]] void refuseWrite(const char* what) const;
    File& of(FileOf file) { return files_[static_cast<std::size_t>(file)]; }

    Table& table_;
    ChangeNames names_;
    JournalWriter journal_;
    std::string memoName_;  ///< file name; empty without memo fields
    bool memosThere_ = false;
    Descriptor memos_;
    File files_[2];
    std::vector<Piece> pieces_;  ///< in the journal
    std::vector<State> marks_;
    State before_;
    IndexPlan index_;
    Touched touched_;
    u32 unit_ = 0;
    u32 memoNext_ = 0;
    u64 copied_ = 0;        ///< appended bytes that the journal holds, too
    bool begun_ = false;    ///< the journal says what is changed
    bool counted_ = false;  ///< records have been appended
    bool changed_ = false;
    bool indexed_ = false;  ///< the new index is built
    bool open_ = true;
};

}  // namespace mira::tables
