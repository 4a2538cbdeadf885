#include "tables/change/newfiles.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "tables/page/bytes.h"
#include "tables/page/refusal.h"
#include "tables/value/memo.h"

namespace mira::tables {
namespace {

constexpr std::size_t kBuffer = 1 << 18;
constexpr u64 kFileMost = 0x7FFFFFFF;

}  // namespace

NewFile::NewFile(Descriptor file, const std::string& path) : file_(std::move(file)), path_(path) {
    if (!file_) refuseWrite();
}

void NewFile::put(std::string_view bytes) {
    buffer_.append(bytes);
    end_ += bytes.size();
    if (end_ > kFileMost) refuse(path_, ": would reach past 2 GiB");
    if (buffer_.size() >= kBuffer) flush();
}

void NewFile::padTo(u64 place) {
    if (place > end_) put(std::string(static_cast<std::size_t>(place - end_), '\0'));
}

void NewFile::flush() {
    if (!writeAt(file_.number(), end_ - buffer_.size(), buffer_.data(), buffer_.size())) {
        refuseWrite();
    }
    buffer_.clear();
}

void NewFile::patch(u64 place, std::string_view bytes) {
    if (!writeAt(file_.number(), place, bytes.data(), bytes.size())) refuseWrite();
}

void NewFile::refuseWrite() const {
    refuse(path_, ": the new files cannot be written: ", std::strerror(errno),
           errno == EIO ? "; is the disk full?" : "");
}

NewMemos::NewMemos(Table& table, const Swap& swap, u32 unit) : table_(table) {
    const u32 kind = GetMemoType(table.base.get());
    if (CreateMemoFile(swap.newTable().c_str(), kind, unit) == 0) {
        refuse(table.path, ": the new memo file cannot be written");
    }
    const auto names = swap.names().newMemos();
    const auto made = std::find_if(names.begin(), names.end(), isThere);
    if (made == names.end()) refuse(table.path, ": the new memo file cannot be written");
    Descriptor file = openPlain(*made, O_RDWR);
    const auto info = file ? statusOf(file.number()) : std::nullopt;
    std::string header(static_cast<std::size_t>(info ? info->st_size : 0), '\0');
    if (header.size() < 4 || !readAt(file.number(), 0, header.data(), header.size())) {
        refuse(table.path, ": the new memo file cannot be read");
    }
    unit_ = unit != 0 ? unit : 512;
    next_ = memoNumber(table, reinterpret_cast<const u8*>(header.data()));
    file_.emplace(std::move(file), table.path);
    file_->put(header);
}

u32 NewMemos::add(std::string_view bytes) {
    image_.clear();
    encodeMemo(table_, bytes, image_);
    file_->padTo(u64{unit_} * next_);
    file_->put(image_);
    const u32 block = next_;
    next_ += static_cast<u32>((image_.size() + unit_ - 1) / unit_);
    return block;
}

void NewMemos::finish() {
    const auto next = memoBytes(table_, next_);
    file_->flush();
    file_->patch(0, {reinterpret_cast<const char*>(next.data()), next.size()});
}

}  // namespace mira::tables
