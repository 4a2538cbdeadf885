// Which files a name given by the user stands for.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace mira::tables {

/// The file of a table whose extension may lack and whose letter case may differ; throws a Refusal
/// that says why there is none, or which ones there are.
std::string findTable(const std::string& name);

/// The "*.dbf" files of a folder, in any letter case, ordered by path; with recursive also those of
/// the folders below, links to folders not followed. Throws a Refusal when it cannot be read.
std::vector<std::string> tablesIn(const std::string& folder, bool recursive);

/// Tables and folders as a command takes them, in the order given. A table that is not found stays
/// in the list, so that opening it gives the reason.
std::vector<std::string> findTables(const std::vector<std::string>& names, bool recursive);

/// The one file beside path that has its name with another extension (".cpg"), in any letter case;
/// empty when there is none.
std::string beside(const std::string& path, std::string_view extension);

/// Index files beside a table (.cdx .idx .mdx .ndx .ntx .cdb, in any letter case).
std::vector<std::string> indexFilesBeside(const std::string& path);

/// The file name of a path without folder and extension.
std::string stemOf(const std::string& path);

/// The names of what is in a folder, in no order; none where it cannot be read.
std::vector<std::string> namesIn(const std::string& folder);

/// The file of a path that differs from it in letter case only; empty when there is none or
/// more than one.
std::string inAnyCase(const std::string& path);

}  // namespace mira::tables
