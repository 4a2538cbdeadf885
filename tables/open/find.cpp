#include "tables/open/find.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>

#include "tables/page/refusal.h"

namespace mira::tables {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kExtension = ".dbf";

bool isTable(const fs::directory_entry& entry) {
    std::error_code ignored;
    return foldCase(entry.path().extension().string()) == kExtension &&
           !entry.is_directory(ignored);
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
    for (const auto& [folded, names] : folder.names) {
        if (!folded.ends_with(kExtension)) continue;
        for (const std::string& name : names) {
            std::error_code error;
            const fs::directory_entry entry(fs::path(path) / name, error);
            if (isTable(entry)) found.push_back(entry.path().string());
        }
    }
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

/// The table of the same folder whose name is nearest to one that is not there; empty when none is
/// near.
std::string nearestTable(const fs::path& wanted, Listing& listing) {
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
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (fs::is_directory(status)) refuse(path, ": is a folder, not a table");
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
    readNames(plain.empty() ? "." : plain.string(), folder);
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
    if (name == "-" || fs::exists(name, error)) return checked(name);
    Listing listing;
    for (const std::string& wanted : {name, name + std::string(kExtension)}) {
        if (fs::exists(wanted, error)) return checked(wanted);
        const std::vector<std::string> found = listing.sameNames(wanted);
        if (found.size() == 1) return checked(found.front());
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
    if (recursive) {
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
        if (!fs::is_directory(name, ignored)) {
            tables.push_back({name, {}});
            continue;
        }
        const std::vector<std::string> found = tablesIn(name, recursive, listing);
        if (found.empty()) {
            refuse(name, ": no tables (*.dbf) in this folder",
                   recursive ? "" : "; -R looks into the folders below, too");
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
    return found.size() == 1 || (!found.empty() && fs::is_regular_file(path, ignored))
               ? found.front()
               : std::string();
}

}  // namespace mira::tables
