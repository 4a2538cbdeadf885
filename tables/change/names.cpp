#include "tables/change/names.h"

#include <algorithm>
#include <filesystem>

#include "tables/change/disk.h"
#include "tables/page/text.h"

namespace mira::tables {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kMemoExtensions[] = {".dbt", ".fpt", ".smt"};

bool isPlainTable(const fs::path& table) { return sameText(table.extension().string(), ".dbf"); }

std::string numbered(const std::string& name, u32 number) {
    return number == 0 ? name : name + std::to_string(number);
}

/// Visual FoxPro's sources have memo files of their own: "t" ends the table's extension.
std::string sourceExtension(const fs::path& table) {
    std::string extension = foldCase(table.extension().string());
    constexpr std::string_view kSources[] = {".scx", ".vcx", ".frx", ".lbx", ".mnx", ".pjx"};
    if (std::find(std::begin(kSources), std::end(kSources), extension) == std::end(kSources)) {
        return "";
    }
    extension.back() = 't';
    return extension;
}

/// Another file in the table's folder that has its name but for the extension.
bool isOfTable(const fs::path& own, std::string_view name) {
    return name.find('/') == std::string_view::npos && name != own.string() &&
           sameText(fs::path(name).stem().string(), own.stem().string());
}

}  // namespace

ChangeNames::ChangeNames(const std::string& path) : table(realPath(path)) {}

std::array<std::string, 3> ChangeNames::newMemos() const {
    std::array<std::string, 3> names;
    std::transform(std::begin(kMemoExtensions), std::end(kMemoExtensions), names.begin(),
                   [&](std::string_view extension) { return textOf(table, "-mira", extension); });
    return names;
}

std::string ChangeNames::beside(std::string_view name) const {
    return (fs::path(table).parent_path() / name).string();
}

std::string ChangeNames::backup(u32 number) const {
    const fs::path path(table);
    if (!isPlainTable(path)) return numbered(table + ".bak", number);
    return numbered(fs::path(path).replace_extension(".bak").string(), number);
}

std::string ChangeNames::memoBackup(u32 number) const {
    fs::path path(table);
    if (isPlainTable(path)) return numbered(path.replace_extension(".tbk").string(), number);
    const std::string source = sourceExtension(path);
    if (!source.empty()) path.replace_extension(source);
    return numbered(path.string() + ".tbk", number);
}

bool ChangeNames::isMemoName(std::string_view name) const {
    const fs::path own = fs::path(table).filename();
    if (!isOfTable(own, name)) return false;
    const std::string extension = foldCase(fs::path(name).extension().string());
    return (!extension.empty() && extension == sourceExtension(own)) ||
           std::find(std::begin(kMemoExtensions), std::end(kMemoExtensions), extension) !=
               std::end(kMemoExtensions);
}

bool ChangeNames::isIndexName(std::string_view name) const {
    const std::string extension = foldCase(fs::path(name).extension().string());
    return isOfTable(fs::path(table).filename(), name) &&
           (extension == ".cdx" || extension == ".dcx");
}

}  // namespace mira::tables
