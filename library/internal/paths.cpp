// Paths: the directory ends with the last slash, the extension starts at the last dot after it.
#include "internal/paths.h"

#include <cstring>

#include "internal/textout.h"

namespace mira {
PathParts splitPath(std::string_view path) {
    PathParts parts;
    const std::size_t slash = path.rfind('/');
    const std::size_t nameStart = slash == std::string_view::npos ? 0 : slash + 1;
    parts.dir = path.substr(0, nameStart);
    parts.name = path.substr(nameStart);
    const std::size_t dot = parts.name.rfind('.');
    if (dot != std::string_view::npos) {
        parts.ext = parts.name.substr(dot);
        parts.name = parts.name.substr(0, dot);
    }
    return parts;
}

namespace {

constexpr std::size_t kPartSize = 256;  // callers' buffers for a directory or a name
constexpr std::size_t kExtSize = 10;

void place(char* to, const char* text) { std::memcpy(to, text, std::strlen(text) + 1); }

}  // namespace

// The results may go where the path, or another source, comes from: they are made before.
void _splitpath(const char* path, char* drive, char* dir, char* name, char* ext) {
    const PathParts parts = splitPath(path);
    char made[2 * kPartSize + kExtSize];
    char* const madeName = made + kPartSize;
    char* const madeExt = madeName + kPartSize;
    TextOut(made, kPartSize).put(parts.dir);
    TextOut(madeName, kPartSize).put(parts.name);
    TextOut(madeExt, kExtSize).put(parts.ext);
    drive[0] = 0;
    place(dir, made);
    place(name, madeName);
    place(ext, madeExt);
}

void MakeExt(char* destination, const char* path, const char* ext, const char* otherName) {
    const PathParts parts = splitPath(path);
    char made[kBackupNameSize];
    TextOut out(made, sizeof made);
    out.put(parts.dir);
    if (otherName != nullptr) {
        out.put(otherName);
    } else {
        out.put(parts.name);
        out.put(ext);
    }
    if (out.cut()) made[0] = 0;  // a cut path would name some other file
    place(destination, made);
}

}  // namespace mira
