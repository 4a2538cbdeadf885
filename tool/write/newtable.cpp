#include "write/newtable.h"

#include "select/opening.h"
#include "tables/change/recovery.h"
#include "tables/open/find.h"
#include "tables/page/refusal.h"
#include "tables/unpack/archive.h"

namespace mira::tool {

namespace fs = std::filesystem;

Target newTableTarget(const std::string& name, const ChangeOptions& options,
                      const std::string& otherwise) {
    refuseArchive(name);
    fs::path path = name;
    if (path.extension().empty()) path += ".dbf";
    Target target = targetOf(path.string());
    if (!target.regular || target.path.empty()) {
        refuse(name, ": a table is a file of its own, no pipe or device");
    }
    const std::string other = target.exists ? target.path : inAnyCase(target.path);
    if (!other.empty() && !options.force) refuse(other, ": exists; ", otherwise);
    return target;
}

fs::path memoTarget(const Table& table, const Target& target) {
    const fs::path made = memoFileOf(table);
    return made.empty() ? made : fs::path(target.path).replace_extension(made.extension());
}

void checkFree(const Table& table, const Target& target, const ChangeOptions& options) {
    std::error_code ignored;
    for (const fs::path& path : {memoTarget(table, target), fs::path(target.path)}) {
        if (options.force || !fs::exists(path, ignored)) continue;
        refuse(path.string(), ": exists; --force replaces it");
    }
}

std::unique_ptr<Table> openOld(const Target& target, const ChangeOptions& options) {
    tellRecovery(recoverNamed(target.path));
    if (!target.exists) return nullptr;
    try {
        return openToChange(target.path, {});
    } catch (const Refusal&) {
        if (!options.noBackup) throw;
        return nullptr;
    }
}

}  // namespace mira::tool
