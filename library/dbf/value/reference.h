// Memo references: what a memo field holds.
#pragma once

#include "mira.h"

namespace mira {

/// What a memo field holds.
struct MemoReference {
    u32 block;
    u32 length;            ///< counts only in SMT tables
    bool isBlank = false;  ///< stands for no memo
};

/// The reference in a memo field of RecordBuffer.
MemoReference memoReference(DbfBase*, int field);
/// False when the field is shorter than the binary reference that its table keeps there.
bool hasRoomForReference(DbfBase*, int field);
/// Stores a reference; digits that do not fit leave the field as it was.
void setMemoReference(DbfBase*, int field, MemoReference);

}  // namespace mira
