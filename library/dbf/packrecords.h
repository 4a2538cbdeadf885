// The record step of packing.
#pragma once

#include "mira.h"

namespace mira {

class ChangedRecords;

/// Writes a record, whatever references it has. BeforeWrite reads memos as the record is to be.
bool writePacked(DbfBase*, u32 record);

/// Moves the records that are not marked deleted to the front and cuts the table after them. They
/// are read as they were before, where that has been kept.
int packRecords(DbfBase*, bool writable, ChangedRecords* readBefore = nullptr);

/// Goes on with moves that an earlier pack, which failed or was killed, did not come to. 1 when
/// there are none.
int finishPackRecords(DbfBase*, bool writable);

}  // namespace mira
