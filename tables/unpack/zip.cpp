// What an archive says of itself is believed only where it makes refusing sooner: how much comes
// out of it is counted while it comes.
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "tables/page/bytes.h"
#include "tables/page/codepage.h"
#include "tables/page/refusal.h"
#include "tables/unpack/archive.h"

namespace mira::tables {
namespace {

constexpr u64 kFileMost = u64{1} << 31;  // bytes of one file
constexpr u64 kRatioMost = 1000;         // bytes of all files for each of the archive's

struct ZipCloser {
    void operator()(zip_t* archive) const { zip_discard(archive); }
    void operator()(zip_file_t* file) const { zip_fclose(file); }
};

struct Entry {
    zip_uint64_t index = 0;
    const char* refusal = nullptr;  ///< why it is not unpacked
    u64 counted = 0;                ///< bytes that came out of it, at most so far
    std::weak_ptr<const NamelessFile> unpacked{};
};

/// Which file an archive is, and in which state.
using Identity = std::tuple<dev_t, ino_t, off_t, time_t, long>;

struct Archive {
    std::string path;
    Identity identity{};
    u64 size = 0;
    std::mutex mutex;  // guards what follows; libzip is for one thread at a time
    std::unique_ptr<zip_t, ZipCloser> zip;
    std::shared_ptr<const std::vector<std::string>> files;
    std::unordered_map<std::string, Entry> entries;
    u64 total = 0;  ///< bytes that came out of all of them
};

void (*unpackHook)() = nullptr;

// --------------------------------------------------------------------------------------------
// Names
// --------------------------------------------------------------------------------------------

/// Names of old archives are in the page of the system that made them, which none of them says: of
/// DOS in the west, unless they read as Russian. There letters above 7F stand in rows, and none of
/// them is a frame or an accented letter.
const char* pageOfNames(const std::string& names) {
    std::size_t high = 0, inRows = 0;
    bool before = false;
    for (const char c : names) {
        const auto byte = static_cast<u8>(c);
        const bool isHigh = byte >= 0x80;
        if (isHigh && !(byte <= 0xAF || (byte >= 0xE0 && byte <= 0xF1) || byte == 0xFC)) {
            return "CP437";
        }
        high += isHigh ? 1 : 0;
        inRows += isHigh && before ? 1 : 0;
        before = isHigh;
    }
    return inRows * 2 > high ? "CP866" : "CP437";
}

/// The path inside, parted by "/", without what would lead out: "\" parts folders in some archives,
/// and "..", a leading "/" and a drive are for those who unpack into folders.
std::string insideOf(const std::string& name, bool* leadsOut) {
    std::string inside;
    std::string_view rest = name;
    *leadsOut = !rest.empty() && (rest.front() == '/' || rest.front() == '\\');
    while (!rest.empty()) {
        const std::size_t end = rest.find_first_of("/\\");
        const std::string_view part = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        if (part.empty() || part == ".") continue;
        if (!inside.empty()) inside += '/';
        if (part == "..") {
            *leadsOut = true;
            inside += "(..)";
        } else {
            inside += part;
        }
    }
    return inside;
}

bool isLink(zip_t* zip, zip_uint64_t index) {
    zip_uint8_t system = 0;
    zip_uint32_t attributes = 0;
    constexpr unsigned kModeBits = 16;
    return zip_file_get_external_attributes(zip, index, 0, &system, &attributes) == 0 &&
           system == ZIP_OPSYS_UNIX && S_ISLNK(attributes >> kModeBits);
}

/// Of methods whose memory the archive cannot choose.
bool isPlainMethod(unsigned method) {
    return method == ZIP_CM_STORE || method == ZIP_CM_DEFLATE || method == ZIP_CM_BZIP2;
}

const char* refusalOf(zip_t* zip, zip_uint64_t index) {
    zip_stat_t info;
    zip_stat_init(&info);
    if (zip_stat_index(zip, index, 0, &info) != 0) return "is damaged";
    if (isLink(zip, index)) return "is a link, which is not followed in an archive";
    if ((info.valid & ZIP_STAT_ENCRYPTION_METHOD) != 0 && info.encryption_method != ZIP_EM_NONE) {
        return "is encrypted; unpack it first";
    }
    if ((info.valid & ZIP_STAT_COMP_METHOD) != 0 && !isPlainMethod(info.comp_method)) {
        return "is packed by a method that is not read here; unpack it first";
    }
    if ((info.valid & ZIP_STAT_SIZE) != 0 && info.size > kFileMost) {
        return "has more than 2 GiB; unpack it first";
    }
    return nullptr;
}

void readNames(Archive& archive) {
    zip_t* const zip = archive.zip.get();
    std::vector<std::pair<zip_uint64_t, std::string>> names;
    std::string foreign;  // those that are no UTF-8
    const zip_int64_t count = zip_get_num_entries(zip, 0);
    for (zip_int64_t i = 0; i < count; ++i) {
        const auto index = static_cast<zip_uint64_t>(i);
        const char* const raw = zip_get_name(zip, index, ZIP_FL_ENC_RAW);
        if (raw == nullptr || *raw == 0 || raw[std::strlen(raw) - 1] == '/') continue;
        names.emplace_back(index, raw);
        if (!isUtf8(raw)) foreign += textOf(raw, '\n');
    }
    const auto page = openPage(pageOfNames(foreign));
    std::vector<std::string> files;
    for (const auto& [index, raw] : names) {
        std::string name;
        isUtf8(raw) || !page ? void(name = raw) : void(toUtf8(*page, raw, name));
        bool leadsOut = false;
        const std::string inside = insideOf(name, &leadsOut);
        if (inside.empty()) continue;
        const auto [at, isNew] = archive.entries.try_emplace(inside, Entry{index});
        const char* const refusal = !isNew     ? "is in the archive more than once"
                                    : leadsOut ? "has a path that leads out of the archive"
                                               : refusalOf(zip, index);
        if (refusal != nullptr) at->second.refusal = refusal;
        if (isNew) files.push_back(inside);
    }
    std::sort(files.begin(), files.end());
    archive.files = std::make_shared<const std::vector<std::string>>(std::move(files));
}

// --------------------------------------------------------------------------------------------
// Archives
// --------------------------------------------------------------------------------------------

[[noreturn]] void refuseOpening(const std::string& path, int code) {
    zip_error_t error;
    zip_error_init_with_code(&error, code);
    const std::string why = zip_error_strerror(&error);
    zip_error_fini(&error);
    refuse(path, ": cannot be read as an archive: ", why);
}

std::shared_ptr<Archive> openNew(const std::string& path, const Identity& identity) {
    auto archive = std::make_shared<Archive>();
    archive->path = path;
    archive->identity = identity;
    archive->size = static_cast<u64>(std::get<2>(identity));
    int code = 0;
    archive->zip.reset(zip_open(path.c_str(), ZIP_RDONLY, &code));
    if (!archive->zip) refuseOpening(path, code);
    readNames(*archive);
    return archive;
}

/// The archive that was asked for last stays open: its tables come one after the other.
std::shared_ptr<Archive> openArchive(const std::string& path) {
    static std::mutex mutex;
    static std::shared_ptr<Archive> last;
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) refuse(path, ": ", std::strerror(errno));
    const Identity identity(info.st_dev, info.st_ino, info.st_size, info.st_mtim.tv_sec,
                            info.st_mtim.tv_nsec);
    const std::lock_guard lock(mutex);
    if (!last || last->path != path || last->identity != identity) {
        last.reset();
        last = openNew(path, identity);
    }
    return last;
}

bool writeAll(int descriptor, const char* bytes, std::size_t count) {
    while (count != 0) {
        const ssize_t written = write(descriptor, bytes, count);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        bytes += written;
        count -= static_cast<std::size_t>(written);
    }
    return true;
}

/// Counts what came out of an entry; throws a Refusal when it is too much.
void countBytes(Archive& archive, Entry& entry, u64 bytes, const std::string& name) {
    if (bytes > kFileMost) refuse(name, ": has more than 2 GiB; unpack it first");
    if (bytes <= entry.counted) return;
    archive.total += bytes - std::exchange(entry.counted, bytes);
    if (archive.total <= kRatioMost * archive.size) return;
    refuse(name, ": the archive's files have more than ", kRatioMost,
           " times its size, so it is unpacked no further; unpack it first if that is right");
}

void copyOut(Archive& archive, Entry& entry, int to, const std::string& name) {
    const std::unique_ptr<zip_file_t, ZipCloser> from(
        zip_fopen_index(archive.zip.get(), entry.index, 0));
    if (!from) refuse(name, ": cannot be unpacked: ", zip_strerror(archive.zip.get()));
    std::string buffer(std::size_t{1} << 16, '\0');
    u64 bytes = 0;
    while (true) {
        if (unpackHook != nullptr) unpackHook();
        const zip_int64_t got = zip_fread(from.get(), buffer.data(), buffer.size());
        if (got < 0) refuse(name, ": is damaged in the archive: ", zip_file_strerror(from.get()));
        if (got == 0) break;
        bytes += static_cast<u64>(got);
        countBytes(archive, entry, bytes, name);
        if (!writeAll(to, buffer.data(), static_cast<std::size_t>(got))) {
            refuse(name, ": cannot be unpacked: ", std::strerror(errno),
                   "; TMPDIR names another folder");
        }
    }
    zip_stat_t info;
    zip_stat_init(&info);
    if (zip_stat_index(archive.zip.get(), entry.index, 0, &info) != 0 ||
        ((info.valid & ZIP_STAT_SIZE) != 0 && info.size != bytes)) {
        refuse(name, ": is damaged in the archive: it is cut off");
    }
}

}  // namespace

std::shared_ptr<const std::vector<std::string>> filesIn(const std::string& archive) {
    return openArchive(archive)->files;
}

void setUnpackHook(void (*hook)()) { unpackHook = hook; }

std::shared_ptr<const NamelessFile> unpack(const std::string& path) {
    const auto in = archivePath(path);
    if (!in) return nullptr;
    const std::shared_ptr<Archive> archive = openArchive(in->archive);
    const std::lock_guard lock(archive->mutex);
    const auto found = archive->entries.find(in->inside);
    if (found == archive->entries.end()) refuse(path, ": the archive has no such file");
    Entry& entry = found->second;
    if (entry.refusal != nullptr) refuse(path, ": ", entry.refusal);
    if (auto held = entry.unpacked.lock()) return held;
    auto made = std::make_shared<const NamelessFile>();
    try {
        copyOut(*archive, entry, made->descriptor(), path);
    } catch (...) {
        archive->total -= std::exchange(entry.counted, 0);  // nothing of it is left
        throw;
    }
    entry.unpacked = made;
    return made;
}

}  // namespace mira::tables
