// Reading records twice while AfterRead is called once.
#pragma once

#include "memo/rebuild.h"
#include "mira.h"

namespace mira {

/// The records that AfterRead has changed: a second reading takes from here what it made of them.
class ChangedRecords {
public:
    explicit ChangedRecords(DbfBase* h) : h_(h) {}

    /// ReadRecord, remembered.
    bool read(u32 record);
    /// The record as read left it; to be called in the same order.
    bool readAgain(u32 record);

private:
    DbfBase* h_;
    Bytes changed_;  ///< record number and bytes
    std::size_t place_ = 0;
};

}  // namespace mira
