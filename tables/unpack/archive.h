// Tables in archives (.zip), for reading. What lies in an archive has a path as if the archive were
// a folder: "old/tables.zip/1998/stock.dbf". To be read it is unpacked into a file without a name,
// of which nothing stays, however the program ends.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tables/unpack/nameless.h"

namespace mira::tables {

/// A path that leads into an archive.
struct ArchivePath {
    std::string archive;  ///< the file
    std::string inside;   ///< parted by "/"; empty: the archive itself
};
/// Nothing for a path of the file system, which is every one where no file ends with ".zip".
std::optional<ArchivePath> archivePath(const std::string& path);
inline bool isInArchive(const std::string& path) { return archivePath(path).has_value(); }

/// What lies in an archive, in UTF-8, in order: "1998/stock.dbf". Folders are not among it. ".." of
/// a hostile archive comes as "(..)", so that no path leads out of it. Throws a Refusal when the
/// file is no archive, or damaged.
std::shared_ptr<const std::vector<std::string>> filesIn(const std::string& archive);

/// Unpacks a file of an archive, unless somebody still holds it; null for a path of the file
/// system. At most 2 GiB, and 1,000 times the archive's size of all its files together, whatever
/// the archive says of them. Throws a Refusal, also for what is encrypted, damaged, a link, or
/// there twice.
std::shared_ptr<const NamelessFile> unpack(const std::string& path);

/// Called again and again while something is unpacked; what it throws ends that. Set before threads
/// are there.
void setUnpackHook(void (*hook)());

/// A path by which a file can be opened as long as this lives.
struct Readable {
    std::shared_ptr<const NamelessFile> unpacked;
    std::string path;
};
inline Readable readable(const std::string& path) {
    std::shared_ptr<const NamelessFile> unpacked = unpack(path);
    std::string opened = unpacked ? unpacked->path() : path;
    return {std::move(unpacked), std::move(opened)};
}

/// Throws a Refusal for a path that leads into an archive: nothing is written there.
void refuseArchive(const std::string& path);

}  // namespace mira::tables
