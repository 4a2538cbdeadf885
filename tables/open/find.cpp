#include "tables/open/find.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>

#include "tables/page/refusal.h"
#include "tables/unpack/archive.h"

namespace mira::tables {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kExtension = ".dbf";

bool isTableName(const std::string& path) {
    return foldCase(fs::path(path).extension().string()) == kExtension;
}

bool isTable(const fs::directory_entry& entry) {
    std::error_code ignored;
    return isTableName(entry.path().string()) && !entry.is_directory(ignored);
}

void collectBelow(const std::string& folder, std::error_code& error,
                  std::vector<std::string>& found) {
    constexpr auto kOptions = fs::directory_options::skip_permission_denied;
    fs::recursive_directory_iterator entries(folder, kOptions, error);
    for (; !error && entries != fs::recursive_directory_iterator(); entries.increment(error)) {
        if (isTable(*entries)) found.push_back(entries->path().string());
    }
}

void collect(const std::string& path, const Listing::Folder& folder,
             std::vector<std::string>& found) {
    const bool archive = isInArchive(path);
    for (const auto& [folded, names] : folder.names) {
        if (!folded.ends_with(kExtension)) continue;
        for (const std::string& name : names) {
            if (archive) {
                found.push_back(textOf(path, '/', name));
                continue;
            }
            std::error_code error;
            const fs::directory_entry entry(fs::path(path) / name, error);
            if (isTable(entry)) found.push_back(entry.path().string());
        }
    }
}

/// What follows a folder in the path of a file that lies in it, at whatever depth; empty for
/// others.
std::string_view behind(const std::string& folder, std::string_view file) {
    if (folder.empty()) return file;
    const bool within =
        file.size() > folder.size() && file.starts_with(folder) && file[folder.size()] == '/';
    return within ? file.substr(folder.size() + 1) : std::string_view();
}

void readArchive(const ArchivePath& of, Listing::Folder& folder) {
    for (const std::string& file : *filesIn(of.archive)) {
        const std::string_view name = behind(of.inside, file);
        if (name.empty() || name.find('/') != std::string_view::npos) continue;
        folder.names[foldCase(name)].emplace_back(name);
    }
}

/// The tables of an archive, or of a folder in it, in their order.
std::vector<std::string> tablesInArchive(const ArchivePath& of) {
    std::vector<std::string> found;
    for (const std::string& file : *filesIn(of.archive)) {
        if (!behind(of.inside, file).empty() && isTableName(file)) {
            found.push_back(textOf(of.archive, '/', file));
        }
    }
    return found;
}

/// An archive, or a folder in one. Throws a Refusal for one that cannot be read.
bool isArchiveFolder(const std::string& name) {
    const auto in = archivePath(name);
    if (!in) return false;
    const auto files = filesIn(in->archive);
    return in->inside.empty() || std::any_of(files->begin(), files->end(), [&](const auto& file) {
               return !behind(in->inside, file).empty();
           });
}

/// False for an archive that cannot be read: opening it tells why.
bool isReadableArchive(const std::string& name) {
    try {
        return isArchiveFolder(name);
    } catch (const Refusal&) {
        return false;
    }
}

/// The only table of an archive. Throws a Refusal where there are more.
std::string onlyTable(const std::string& name) {
    constexpr std::size_t kNamed = 5;
    std::vector<std::string> found = tablesInArchive(*archivePath(name));
    if (found.size() == 1) return found.front();
    if (found.empty()) refuse(name, ": no tables (*.dbf) in this archive");
    const std::size_t count = found.size();
    found.resize(std::min(count, kNamed));
    if (count > kNamed) found.emplace_back("...");
    refuse(name, ": holds ", count, " tables; which one? There are ", joined(found));
}

// Not by directory_iterator, which ends the program where there is no memory.
void readNames(const std::string& path, Listing::Folder& folder) {
    struct Closer {
        void operator()(DIR* open) const { closedir(open); }
    };
    errno = 0;
    const std::unique_ptr<DIR, Closer> entries(opendir(path.c_str()));
    const dirent* entry = nullptr;
    while (entries && (errno = 0, entry = readdir(entries.get())) != nullptr) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") folder.names[foldCase(name)].emplace_back(name);
    }
    folder.error.assign(errno, std::generic_category());
}

/// The table of the same folder whose name is nearest to one that is not there, or of that name
/// anywhere in the same archive; empty when none is near.
std::string nearestTable(const fs::path& wanted, Listing& listing) {
    if (const auto in = archivePath(wanted.string())) {
        const std::string stem = foldCase(stemOf(wanted.string()));
        for (const std::string& table : tablesInArchive({in->archive, {}})) {
            if (foldCase(stemOf(table)) == stem) return table;
        }
    }
    std::vector<std::string> names;
    collect(wanted.parent_path().string(), listing.folder(wanted.parent_path()), names);
    for (std::string& name : names) name = stemOf(name);
    std::sort(names.begin(), names.end());
    const bool whole = foldCase(wanted.extension().string()) == kExtension;
    const std::string nearest =
        nearestName(whole ? stemOf(wanted.string()) : wanted.filename().string(), names);
    return nearest.empty() ? nearest : (wanted.parent_path() / nearest).string();
}

/// The path of a file that is there, unless it can be no table.
std::string checked(const std::string& path) {
    if (isInArchive(path)) return path;
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (fs::is_directory(status))
        refuse(path, ": is a folder, not a table; `mira tables` lists those in it");
    if (!fs::exists(status) && fs::is_symlink(fs::symlink_status(path, error))) {
        refuse(path, ": is a link that leads nowhere");
    }
    if (!fs::is_regular_file(status)) {
        refuse(path, ": a table cannot come from a pipe; store it in a file first");
    }
    return path;
}

}  // namespace

const Listing::Folder& Listing::folder(const fs::path& path) {
    const std::lock_guard lock(mutex_);
    const fs::path plain = (path / ".").parent_path();  // without a slash at its end
    const auto [at, isNew] = folders_.try_emplace(plain.string());
    Folder& folder = at->second;
    if (!isNew) return folder;
    if (const auto in = archivePath(plain.string())) {
        readArchive(*in, folder);
    } else {
        readNames(plain.empty() ? "." : plain.string(), folder);
    }
    for (auto& [folded, names] : folder.names) std::sort(names.begin(), names.end());
    return folder;
}

std::vector<std::string> Listing::sameNames(const fs::path& path) {
    const fs::path parent = path.parent_path();
    const Folder& all = folder(parent);
    const auto same = all.names.find(foldCase(path.filename().string()));
    std::vector<std::string> found;
    std::error_code ignored;
    if (all.error && fs::is_regular_file(path, ignored)) return {path.string()};
    if (same == all.names.end()) return found;
    for (const std::string& name : same->second) {
        if (fs::is_directory(parent / name, ignored)) continue;
        const bool exact = path.filename() == name;
        found.insert(exact ? found.begin() : found.end(), (parent / name).string());
    }
    return found;
}

std::string findTable(const std::string& name) {
    std::error_code error;
    if (isArchiveFolder(name)) return onlyTable(name);
    if (name == "-" || fs::exists(name, error)) return checked(name);
    Listing listing;
    for (const std::string& wanted : {name, name + std::string(kExtension)}) {
        if (fs::exists(wanted, error)) return checked(wanted);
        const std::vector<std::string> found = listing.sameNames(wanted);
        if (found.size() == 1 || (!found.empty() && found.front() == wanted)) {
            return checked(found.front());
        }
        if (!found.empty()) refuse(name, ": which one? There are ", joined(found));
    }
    if (error == std::errc::permission_denied) refuse(name, ": permission denied");
    const std::string nearest = nearestTable(name, listing);
    refuse(name, ": no such table", nearest.empty() ? "" : "; did you mean " + nearest + "?");
}

std::vector<std::string> tablesIn(const std::string& folder, bool recursive, Listing* listing) {
    Listing own;
    std::vector<std::string> found;
    std::error_code error;
    if (const auto in = archivePath(folder)) {
        found = tablesInArchive(*in);
    } else if (recursive) {
        collectBelow(folder, error, found);
    } else {
        const Listing::Folder& all = (listing != nullptr ? *listing : own).folder(folder);
        collect(folder, all, found);
        error = all.error;
    }
    if (error) refuse(folder, ": cannot be read: ", error.message());
    std::sort(found.begin(), found.end());
    return found;
}

std::vector<FoundTable> findWithFolders(const std::vector<std::string>& names, bool recursive,
                                        Listing* listing) {
    std::vector<FoundTable> tables;
    for (const std::string& name : names) {
        std::error_code ignored;
        const bool archive = isReadableArchive(name);
        if (!archive && !fs::is_directory(name, ignored)) {
            tables.push_back({name, {}});
            continue;
        }
        const std::vector<std::string> found = tablesIn(name, recursive, listing);
        if (found.empty()) {
            refuse(name, ": no tables (*.dbf) in this ", archive ? "archive" : "folder",
                   archive || recursive ? "" : "; -R looks into the folders below, too");
        }
        for (const std::string& path : found) {
            const fs::path below = fs::path(path).lexically_relative(name).parent_path();
            tables.push_back({path, below.string()});
        }
    }
    return tables;
}

std::vector<std::string> findTables(const std::vector<std::string>& names, bool recursive,
                                    Listing* listing) {
    std::vector<std::string> paths;
    for (FoundTable& found : findWithFolders(names, recursive, listing)) {
        paths.push_back(std::move(found.path));
    }
    return paths;
}

std::string beside(const std::string& path, std::string_view extension, Listing* listing) {
    return inAnyCase(fs::path(path).replace_extension(extension).string(), listing);
}

std::vector<std::string> indexFilesBeside(const std::string& path, Listing* listing) {
    Listing own;
    std::vector<std::string> found;
    const bool container = sameText(fs::path(path).extension().string(), ".dbc");
    for (const char* extension : {".cdx", ".dcx", ".idx", ".mdx", ".ndx", ".ntx", ".cdb"}) {
        // A database container and a table of one name have an index each.
        if (container != (std::string_view(extension) == ".dcx")) continue;
        std::string file = beside(path, extension, listing != nullptr ? listing : &own);
        if (!file.empty()) found.push_back(std::move(file));
    }
    return found;
}

std::string stemOf(const std::string& path) { return fs::path(path).stem().string(); }

std::string inAnyCase(const std::string& path, Listing* listing) {
    Listing own;
    if (listing == nullptr) listing = &own;
    std::error_code ignored;
    const std::vector<std::string> found = listing->sameNames(path);
    return found.size() == 1 ||
                   (!found.empty() && (found.front() == path || fs::is_regular_file(path, ignored)))
               ? found.front()
               : std::string();
}

}  // namespace mira::tables
