#include <sys/stat.h>

#include "tables/page/refusal.h"
#include "tables/unpack/archive.h"

namespace mira::tables {
namespace {

constexpr std::string_view kExtension = ".zip";

bool isFile(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

/// "a//./b/" as "a/b".
std::string plainInside(std::string_view text) {
    std::string plain;
    while (!text.empty()) {
        const std::size_t end = text.find('/');
        const std::string_view part = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (part.empty() || part == ".") continue;
        if (!plain.empty()) plain += '/';
        plain += part;
    }
    return plain;
}

}  // namespace

std::optional<ArchivePath> archivePath(const std::string& path) {
    for (std::size_t end = 0; end < path.size();) {
        end = std::min(path.find('/', end + 1), path.size());
        const std::string_view start = std::string_view(path).substr(0, end);
        if (start.size() < kExtension.size() ||
            upperAscii(start.substr(start.size() - kExtension.size())) != ".ZIP") {
            continue;
        }
        std::string archive(start);
        if (isFile(archive)) return ArchivePath{archive, plainInside(path.substr(end))};
    }
    return std::nullopt;
}

void refuseArchive(const std::string& path) {
    const auto in = archivePath(path);
    if (!in) return;
    refuse(path, ": tables in an archive are only read; unpack ", in->archive, " to change them");
}

}  // namespace mira::tables
