// Descriptors and folders: exact transfers, synchronising, and what belongs to a file besides its
// bytes.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <optional>
#include <string>
#include <utility>

#include "mira.h"
#include "tables/page/refusal.h"

namespace mira::tables {

/// An open descriptor; -1 for none.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor();
    explicit operator bool() const { return number_ >= 0; }
    int number() const { return number_; }

private:
    int number_ = -1;
};

/// Opens with the flags of open(2), never through a link in the last place, never waiting, closed
/// in programs that this one starts. Of new files the owner alone may read and write.
Descriptor openPlain(const std::string& path, int flags);

/// All of the bytes, or false.
bool readAt(int descriptor, u64 offset, void* to, std::size_t count);
bool writeAt(int descriptor, u64 offset, const void* from, std::size_t count);
/// Copies a file from its beginning to the beginning of another.
bool copyAll(int from, int to);

/// What a name itself stands for; nothing when there is no such name.
std::optional<struct stat> statusOf(const std::string& path);
std::optional<struct stat> statusOf(int descriptor);
inline bool isThere(const std::string& path) { return statusOf(path).has_value(); }
/// Whether the name still stands for the open file.
bool isNamed(int descriptor, const std::string& path);

/// The folder of a path, "." where it names none.
std::string folderOf(const std::string& path);
/// Makes the names in the folder of a path outlast a power cut; true also where the system offers
/// nothing of the kind.
bool syncFolderOf(const std::string& path);
/// True when the name is gone.
bool removeFile(const std::string& path);
/// Gives a file owner, mode and access list of another, as far as that is allowed.
void carryOver(int from, int to);
/// The file that a path leads to when its last part is a link; else the path as it is.
std::string realPath(const std::string& path);
/// Throws a Refusal unless the folder of a path has room for so many bytes.
void checkRoom(const std::string& path, u64 bytes);

/// Another program changes the table.
struct Busy : Refusal {
    using Refusal::Refusal;
};
/// A file cannot be read or written.
struct DiskError : Refusal {
    using Refusal::Refusal;
};
[[noreturn]] void refuseBusy(const std::string& path);

enum class Lock : u8 {
    Held,
    Busy,  ///< another program has it
    None   ///< the file system knows no locks, or would lock out the holder's other descriptors
};
/// Takes the exclusive lock of a whole file for as long as the open file lives.
Lock takeLock(int descriptor);
void releaseLock(int descriptor);
/// Whether somebody holds it.
bool isLocked(int descriptor);

}  // namespace mira::tables
