// What the library keeps for a handle besides its public members.
//
// OpenBase makes it. A record that the caller has set up himself with SetDefOptions has none: it
// reads without reading ahead, its sort order has as many entries as the view, and it gets one from
// the first operation that has something to keep. Close_File releases it.
#pragma once

#include <memory>

#include "dbf/table/ahead.h"
#include "mira.h"

namespace mira {

/// Releases what was never made. (A lambda in its place would be exported.)
inline void releaseNothing(void* /*nothing*/) {}

struct PrivateState {
    ReadAhead ahead;
    u32 sortOrderCount = 0;      ///< entries in SortOrder; 0 for as many as reccount()
    std::optional<FileId> file;  ///< the table's, which none of its other files may be
    bool packing = false;        ///< Pack is writing a record
    bool foreignLevel7 = false;  ///< level-7 table of another maker: signed integers
    /// Prepared expressions, as the modules that prepare them keep them.
    std::unique_ptr<void, void (*)(void*)> expressions{nullptr, releaseNothing};
};

/// The state of a handle, made when there is none; null without memory.
PrivateState* keepPrivate(DbfBase*);

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
