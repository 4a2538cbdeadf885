#include "tables/open/find.h"

#include <dirent.h>

#include <algorithm>
#include <filesystem>
#include <memory>

#include "tables/page/refusal.h"

namespace mira::tables {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kExtension = ".dbf";

/// Files of path's folder whose names are path's name with letter case aside.
std::vector<std::string> sameNames(const fs::path& path) {
    std::vector<std::string> found;
    const fs::path folder = path.parent_path();
    const std::string wanted = foldCase(path.filename().string());
    for (const std::string& name : namesIn(folder.empty() ? "." : folder.string())) {
        if (foldCase(name) != wanted) continue;
        std::error_code ignored;
        if (!fs::is_directory(folder / name, ignored)) found.push_back((folder / name).string());
    }
    std::sort(found.begin(), found.end());
    return found;
}

bool isTable(const fs::directory_entry& entry) {
    std::error_code ignored;
    return foldCase(entry.path().extension().string()) == kExtension &&
           !entry.is_directory(ignored);
}

template <typename Iterator>
void collect(Iterator entries, std::error_code& error, std::vector<std::string>& found) {
    for (; !error && entries != Iterator(); entries.increment(error)) {
        if (isTable(*entries)) found.push_back(entries->path().string());
    }
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

std::string findTable(const std::string& name) {
    std::error_code error;
    if (name == "-" || fs::exists(name, error)) return checked(name);
    for (const std::string& wanted : {name, name + std::string(kExtension)}) {
        if (fs::exists(wanted, error)) return checked(wanted);
        const std::vector<std::string> found = sameNames(wanted);
        if (found.size() == 1) return checked(found.front());
        if (!found.empty()) refuse(name, ": which one? There are ", joined(found));
    }
    if (error == std::errc::permission_denied) refuse(name, ": permission denied");
    refuse(name, ": no such table");
}

std::vector<std::string> tablesIn(const std::string& folder, bool recursive) {
    std::vector<std::string> found;
    std::error_code error;
    constexpr auto kOptions = fs::directory_options::skip_permission_denied;
    if (recursive) {
        collect(fs::recursive_directory_iterator(folder, kOptions, error), error, found);
    } else {
        collect(fs::directory_iterator(folder, error), error, found);
    }
    if (error) refuse(folder, ": cannot be read: ", error.message());
    std::sort(found.begin(), found.end());
    return found;
}

std::vector<std::string> findTables(const std::vector<std::string>& names, bool recursive) {
    std::vector<std::string> tables;
    for (const std::string& name : names) {
        std::error_code ignored;
        if (!fs::is_directory(name, ignored)) {
            tables.push_back(name);
            continue;
        }
        const std::vector<std::string> found = tablesIn(name, recursive);
        if (found.empty()) {
            refuse(name, ": no tables (*.dbf) in this folder",
                   recursive ? "" : "; -R looks into the folders below, too");
        }
        tables.insert(tables.end(), found.begin(), found.end());
    }
    return tables;
}

std::string beside(const std::string& path, std::string_view extension) {
    return inAnyCase(fs::path(path).replace_extension(extension).string());
}

std::vector<std::string> indexFilesBeside(const std::string& path) {
    std::vector<std::string> found;
    for (const char* extension : {".cdx", ".idx", ".mdx", ".ndx", ".ntx", ".cdb"}) {
        std::string file = beside(path, extension);
        if (!file.empty()) found.push_back(std::move(file));
    }
    return found;
}

std::string stemOf(const std::string& path) { return fs::path(path).stem().string(); }

// Not by directory_iterator, which ends the program where there is no memory.
std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    struct Closer {
        void operator()(DIR* open) const { closedir(open); }
    };
    const std::unique_ptr<DIR, Closer> entries(opendir(folder.c_str()));
    if (!entries) return names;
    while (const dirent* const entry = readdir(entries.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") names.emplace_back(name);
    }
    return names;
}

std::string inAnyCase(const std::string& path) {
    std::error_code ignored;
    if (fs::is_regular_file(path, ignored)) return path;
    const std::vector<std::string> found = sameNames(path);
    return found.size() == 1 ? found.front() : std::string();
}

}  // namespace mira::tables
