// The files of a swap while they are built.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tables/change/disk.h"
#include "tables/change/swap.h"
#include "tables/column/column.h"

namespace mira::tables {

/// A new file, written from its beginning to its end.
class NewFile {
public:
    /// path: of the table, for messages. Throws a Refusal, as all of this does.
    NewFile(Descriptor file, const std::string& path);
    void put(std::string_view bytes);
    /// Zeros up to a place.
    void padTo(u64 place);
    void flush();
    /// Writes over bytes that are flushed.
    void patch(u64 place, std::string_view bytes);

private:
    [[noreturn]] void refuseWrite() const;

    Descriptor file_;
    std::string path_;
    std::string buffer_;
    u64 end_ = 0;
};

/// A new memo file beside the new table. The library lays its header.
class NewMemos {
public:
    /// For the memos of a table like this one; unit: bytes per block, 0 for the usual.
    NewMemos(Table& table, const Swap& swap, u32 unit);
    /// The block of the memo.
    u32 add(std::string_view bytes);
    void finish();

private:
    Table& table_;
    std::optional<NewFile> file_;
    u32 unit_ = 0, next_ = 0;
    std::string image_;
};

}  // namespace mira::tables
