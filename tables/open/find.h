// Which files a name given by the user stands for.
#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <vector>

namespace mira::tables {

/// What folders hold. Each is read once, when it is first asked about, so that the work on a folder
/// of many tables grows with their number alone; what changes there later is not noticed. For the
/// threads of one command. Where a function takes a listing and gets none, it makes its own.
class Listing {
public:
    struct Folder {
        std::error_code error;  ///< why it cannot be read to its end
        /// Names by what they are with letter case aside, in order.
        std::unordered_map<std::string, std::vector<std::string>> names;
    };
    const Folder& folder(const std::filesystem::path& path);
    /// The files whose names are that of path with letter case aside: path itself first, the others
    /// in order.
    std::vector<std::string> sameNames(const std::filesystem::path& path);

private:
    std::mutex mutex_;
    std::map<std::string, Folder> folders_;
};

/// All paths may lead into an archive: "old.zip/stock.dbf", "old.zip/STOCK".

/// The file of a table whose extension may lack and whose letter case may differ; throws a Refusal
/// that says why there is none, or which ones there are.
std::string findTable(const std::string& name);

/// The "*.dbf" files of a folder, in any letter case, ordered by path; with recursive also those of
/// the folders below, links to folders not followed. Of an archive all. Throws a Refusal when it
/// cannot be read.
std::vector<std::string> tablesIn(const std::string& folder, bool recursive,
                                  Listing* listing = nullptr);

struct FoundTable {
    std::string path;
    std::string below;  ///< folders between the one that was named and the table's: "a/b"
};
/// Tables and folders as a command takes them, in the order given. A table that is not found stays
/// in the list, so that opening it gives the reason.
std::vector<FoundTable> findWithFolders(const std::vector<std::string>& names, bool recursive,
                                        Listing* listing = nullptr);
/// Only their paths.
std::vector<std::string> findTables(const std::vector<std::string>& names, bool recursive,
                                    Listing* listing = nullptr);

/// The one file beside path that has its name with another extension (".cpg"), in any letter case;
/// empty when there is none.
std::string beside(const std::string& path, std::string_view extension, Listing* listing = nullptr);

/// Index files beside a table (.cdx .idx .mdx .ndx .ntx .cdb, in any letter case; of a database
/// container .dcx).
std::vector<std::string> indexFilesBeside(const std::string& path, Listing* listing = nullptr);

/// The file name of a path without folder and extension.
std::string stemOf(const std::string& path);

/// The file of a path, else the one that differs from it in letter case only; empty when there is
/// none or more than one.
std::string inAnyCase(const std::string& path, Listing* listing = nullptr);

}  // namespace mira::tables
