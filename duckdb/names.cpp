#include "duckdb/names.h"

#include <glob.h>

#include <algorithm>
#include <filesystem>
#include <new>

#include "tables/open/find.h"
#include "tables/page/refusal.h"

namespace mira::duck {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kMagic = "*?[";

/// The pattern with the letters of its extension in either case.
std::string anyCase(const std::string& pattern) {
    const std::size_t dot = pattern.rfind('.');
    if (dot == std::string::npos || pattern.find_first_of("/*?[", dot) != std::string::npos) {
        return pattern;
    }
    std::string any = pattern.substr(0, dot);
    for (const char c : pattern.substr(dot)) {
        const char upper = tables::upperAscii({&c, 1})[0];
        const bool letter = upper >= 'A' && upper <= 'Z';
        any += letter ? tables::textOf('[', upper, static_cast<char>(upper - 'A' + 'a'), ']')
                      : std::string(1, c);
    }
    return any;
}

/// What matches a pattern, in order.
std::vector<std::string> matches(const std::string& pattern) {
    glob_t found{};
    const int result = ::glob(pattern.c_str(), 0, nullptr, &found);
    std::vector<std::string> names;
    try {
        names.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    } catch (...) {
        ::globfree(&found);
        throw;
    }
    ::globfree(&found);
    if (result == GLOB_NOSPACE) throw std::bad_alloc();
    return names;
}

/// A name for a pattern, where it stands for itself.
std::string literal(const std::string& name) {
    std::string text;
    for (const char c : name) {
        if (c == '\\' || kMagic.find(c) != std::string_view::npos) text += '\\';
        text += c;
    }
    return text;
}

/// The folder and all below it; links to folders are not followed.
std::vector<std::string> foldersFrom(const std::string& folder) {
    std::vector<std::string> folders{folder};
    std::error_code error;
    fs::recursive_directory_iterator at(folder, fs::directory_options::skip_permission_denied,
                                        error);
    for (; !error && at != fs::recursive_directory_iterator(); at.increment(error)) {
        std::error_code unknown;
        if (at->symlink_status(unknown).type() == fs::file_type::directory) {
            folders.push_back(at->path().string());
        }
    }
    return folders;
}

std::vector<std::string> expanded(const std::string& pattern) {
    constexpr std::string_view kDeep = "**/";
    const std::size_t deep = pattern.find(kDeep);
    if (deep == std::string::npos || (deep != 0 && pattern[deep - 1] != '/')) {
        return matches(anyCase(pattern));
    }
    const std::string base = pattern.substr(0, deep);
    const std::string rest = pattern.substr(deep + kDeep.size());
    std::vector<std::string> names;
    for (const std::string& start : base.empty() ? std::vector<std::string>{"."} : matches(base)) {
        for (const std::string& folder : foldersFrom(start)) {
            const char* const between = folder.back() == '/' ? "" : "/";
            const std::vector<std::string> more = expanded(literal(folder) + between + rest);
            names.insert(names.end(), more.begin(), more.end());
        }
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

}  // namespace

std::vector<std::string> tablesNamed(const std::string& path) {
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    const bool folder = fs::is_directory(status);
    const bool pattern = !fs::exists(status) && path.find_first_of(kMagic) != std::string::npos;
    if (!folder && !pattern) return {path};
    std::vector<std::string> names = folder ? tables::tablesIn(path, false) : expanded(path);
    if (names.empty()) tables::refuse(path, ": no such tables");
    return names;
}

std::vector<std::string> tablesNamed(const std::vector<std::string>& paths) {
    std::vector<std::string> names;
    for (const std::string& path : paths) {
        const std::vector<std::string> more = tablesNamed(path);
        names.insert(names.end(), more.begin(), more.end());
    }
    if (names.empty()) tables::refuse("no tables");
    return names;
}

}  // namespace mira::duck
