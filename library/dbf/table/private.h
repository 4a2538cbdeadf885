// What the library keeps for a handle besides its public members.
//
// OpenBase makes it. A record that the caller has set up himself with SetDefOptions has none: it
// reads without reading ahead, its sort order has as many entries as the view, and it gets one from
// the first operation that has something to keep. Close_File releases it.
#pragma once

#include <memory>
#include <utility>

#include "dbf/table/ahead.h"
#include "mira.h"

namespace mira {

/// Releases what was never made. (A lambda in its place would be exported.)
inline void releaseNothing(void* /*nothing*/) {}

struct PrivateState {
    ReadAhead ahead;
    u32 sortOrderCount = 0;      ///< entries in SortOrder; 0 for as many as reccount()
    std::optional<FileId> file;  ///< the table's, which none of its other files may be
    std::FILE* own = nullptr;    ///< the table's stream, unbuffered, if the library has opened it
    bool editing = false;        ///< an edit that takes more than one write is running
    bool backupTried = false;    ///< that edit has asked for its backup copy
    bool halfEdited = false;     ///< records are not where a failed edit would look for them
    bool packing = false;        ///< Pack is writing a record
    bool foreignLevel7 = false;  ///< level-7 table of another maker: signed integers
    u16 testFields = 0;          ///< fields of AddTestField, the last ones
    /// Prepared expressions, as the modules that prepare them keep them.
    std::unique_ptr<void, void (*)(void*)> expressions{nullptr, releaseNothing};
};

/// The state of a handle, made when there is none; null without memory.
PrivateState* keepPrivate(DbfBase*);

/// Lasts as long as an edit that takes more than one write: a backup copy that fails at its
/// beginning is not tried again before its end, when the table is half edited. Edits nest.
class Editing {
public:
    explicit Editing(DbfBase* h) : handle_(h) {
        PrivateState* const state = keepPrivate(h);
        if (state == nullptr) return;
        ready_ = true;
        inner_ = std::exchange(state->editing, true);
        if (!inner_) state->backupTried = false;
    }
    ~Editing() {
        // A hook may have closed the file.
        if (ready_ && handle_->Private != nullptr) handle_->Private->editing = inner_;
    }
    Editing(const Editing&) = delete;
    Editing& operator=(const Editing&) = delete;

    /// False without memory.
    bool ready() const { return ready_; }

private:
    DbfBase* handle_;
    bool ready_ = false;
    bool inner_ = false;
};

inline bool isHalfEdited(const DbfBase* h) {
    return h->Private != nullptr && h->Private->halfEdited;
}
/// Whether the stream has no buffer, so that its file may be written without it.
inline bool isOwnStream(const DbfBase* h) {
    return h->Private != nullptr && h->Private->own == h->TableFile && h->TableFile != nullptr;
}

inline bool isForeignLevel7(const DbfBase* h) {
    return h->Private != nullptr && h->Private->foreignLevel7;
}

inline bool isPacking(const DbfBase* h) { return h->Private != nullptr && h->Private->packing; }

inline u32 sortOrderCount(const DbfBase* h) {
    return h->Private != nullptr ? h->Private->sortOrderCount : 0;
}
/// A count other than 0 needs a state that keeps it.
inline void setSortOrderCount(DbfBase* h, u32 count) {
    if (h->Private != nullptr) h->Private->sortOrderCount = count;
}
/// Gives the view a sort order, or none, in place of the one it has.
inline void setSortOrder(DbfBase* h, Owned<u32> order = nullptr, u32 count = 0) {
    replace(h->SortOrder, std::move(order));
    setSortOrderCount(h, count);
}

}  // namespace mira
