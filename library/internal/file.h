// File access: exact transfers, sizes, owning pointers.
//
// Streams are unbuffered: a transfer is one system call, and nothing written waits in the process.
// The table file gets its read-ahead from dbf/table/ahead.cpp.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <optional>
#include <utility>

#include "mira.h"

namespace mira {

struct FreeDeleter {
    void operator()(void* memory) const { std::free(memory); }
};
struct CloseDeleter {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

/// Memory of malloc that frees itself; release() hands it to a handle or a caller.
template <typename T>
using Owned = std::unique_ptr<T, FreeDeleter>;
using OwnedFile = std::unique_ptr<std::FILE, CloseDeleter>;

/// count elements of T, uninitialised; null when there is no memory.
template <typename T>
Owned<T> allocate(std::size_t count) {
    if (count > SIZE_MAX / sizeof(T)) return nullptr;
    return Owned<T>(static_cast<T*>(std::malloc(count * sizeof(T))));
}

/// A malloc copy of a text; null for null or without memory.
Owned<char> copyText(const char* text);

/// Gives a member of a handle memory to own, or none, in place of what it owned.
template <typename T>
void replace(T*& member, Owned<T> memory = nullptr) {
    std::free(std::exchange(member, memory.release()));
}

/// What a file is under all its names: links, other spellings of the path.
struct FileId {
    dev_t device;
    ino_t inode;
    bool operator==(const FileId&) const = default;
};
struct FileFacts {
    FileId id;
    u64 size;  ///< bytes
};
/// Empty for null, and where there is no file. Symbolic links are followed.
std::optional<FileFacts> factsOf(std::FILE*);
std::optional<FileFacts> factsOf(const char* path);
std::optional<FileId> fileId(std::FILE*);
std::optional<FileId> fileId(const char* path);
/// What a name itself stands for, which is what renaming replaces: a link, not the file it leads
/// to.
std::optional<FileId> nameId(const char* path);
bool isSameFile(std::optional<FileId> a, std::optional<FileId> b);

/// Opens a regular file with the flags of open(2); -1 on failure, and for anything else: a
/// directory holds no bytes, and reads from a FIFO or a terminal may never return. Never waits. *id
/// tells what has been opened.
int openRegular(const char* path, int flags, FileId* id);
/// Opens with the flags of open(2) and the mode that fdopen gives them, unbuffered. Null on
/// failure, and for what is no regular file: a directory holds no bytes, and reads from a FIFO or a
/// terminal may never return. Never waits. *opened tells what has been opened.
std::FILE* openUnbuffered(const char* path, int flags, const char* mode,
                          FileFacts* opened = nullptr);
/// The same for an open descriptor, which is closed on failure.
std::FILE* openUnbuffered(int fd, const char* mode, FileFacts* opened = nullptr);
/// Open_File, or Open_FileRO.
std::FILE* openFile(const char* path, bool readOnly, FileId* id = nullptr);
/// Creates a file, or opens one and empties it unless it is one of the files to keep.
std::FILE* openEmptied(const char* path, std::initializer_list<std::optional<FileId>> keep);

/// Where files end that are written, and memo files that are read: positions and counts are signed
/// 32-bit numbers there.
inline constexpr u64 kReachable = 0x7FFFFFFF;

/// Seeks to a byte offset up to kReachable.
bool seekTo(std::FILE*, u64 offset);
/// Seeks to any byte offset.
bool seekFar(std::FILE*, u64 offset);
/// All count bytes, or false.
bool readExact(std::FILE*, void* buffer, u32 count);
bool writeExact(std::FILE*, const void* buffer, u32 count);
/// Reads up to count bytes at an offset of a descriptor, whose position stays; *got becomes their
/// number. False on an error.
bool readPlaced(int descriptor, u64 offset, void* buffer, u32 count, u32* got);
/// Writes all count bytes at an offset, or returns false. Does not count as a change.
bool writePlaced(int descriptor, u64 offset, const void* buffer, u32 count);
/// Size of a file, if it can be told.
std::optional<u64> sizeOf(int descriptor);
/// Has the operating system put a file on the disk, or a folder's names. Where a file system knows
/// no such call, that counts as done.
bool synchronise(int descriptor);
/// The same for the folder in which a path is.
bool synchroniseFolder(const char* path);
/// Writes at an offset of an unbuffered stream, whose position stays; returns the bytes that the
/// operating system has taken. Does not count as a change.
u32 writePlaced(std::FILE*, u64 offset, const void* buffer, u32 count);
/// Size of the file, if it can be told; leaves the position at its end.
std::optional<u64> fileSize(std::FILE*);

/// Changes that the process has made to a file, by whatever name and stream. Bytes read ahead are
/// true only while it stands, so that one handle sees at once what another has written. WriteFile
/// counts; whoever writes tables by other means has to. Files that share a counter by chance only
/// cost each other a read.
std::atomic<u64>& changesOf(std::FILE*);

}  // namespace mira
