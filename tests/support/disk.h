// The disk, as a model: what has been written to a file since it was last synchronised, and names
// since their folder was, may be lost by a power cut, in any part.
#pragma once

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support.h"

namespace test {

/// A call that changes a file or a name.
struct Call {
    enum Kind { Create, Write, Cut, Rename, Link, Unlink, SyncFile, SyncFolder } kind;
    ino_t file = 0;
    std::string name{}, other{};  // bytes of a write in other
    u_int64_t place = 0;
};
/// Where they are collected, if they are.
inline std::vector<Call>* calls = nullptr;

inline void record(Call call) {
    if (calls != nullptr) calls->push_back(std::move(call));
}

inline ino_t fileOf(int fd) {
    struct stat info = {};
    return fstat(fd, &info) == 0 ? info.st_ino : 0;
}

inline bool isFolder(int fd) {
    struct stat info = {};
    return fstat(fd, &info) == 0 && S_ISDIR(info.st_mode);
}

inline std::string lastName(const char* path) { return std::filesystem::path(path).filename(); }

/// Names and what the files hold.
using Files = std::map<std::string, std::string>;

inline Files filesIn(const std::string& folder) {
    Files files;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        files[entry.path().filename()] = readAll(entry.path());
    }
    return files;
}

/// Each a file of its own.
inline void lay(const std::string& folder, const Files& files) {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (!files.contains(entry.path().filename()) || entry.hard_link_count() > 1) {
            std::filesystem::remove(entry.path());
        }
    }
    for (const auto& [name, bytes] : files) writeAll(folder + "/" + name, bytes);
}

/// Files and names as the disk may have them when the power goes: of what has been changed since
/// it was last synchronised any part.
class Disk {
public:
    Disk(const std::string& folder, const Files& files) {
        for (const auto& [name, bytes] : files) {
            struct stat info = {};
            stat((folder + "/" + name).c_str(), &info);
            names_[name] = info.st_ino;
            bytes_[info.st_ino] = bytes;
        }
        shown_ = names_;
    }

    void take(const Call& call) {
        switch (call.kind) {
            case Call::Write:
            case Call::Cut:
                writes_[call.file].push_back(call);
                return;
            case Call::SyncFile:
                for (const Call& write : std::exchange(writes_[call.file], {})) apply(write);
                return;
            case Call::SyncFolder:
                for (const Call& name : std::exchange(pending_, {})) rename(names_, name);
                return;
            default:
                pending_.push_back(call);
                if (call.kind != Call::Create) pending_.back().file = shown_[call.name];
                rename(shown_, pending_.back());
        }
    }

    /// Lays what is left when the power goes now.
    void cut(std::mt19937& random, const std::string& folder) {
        for (auto& [file, writes] : writes_) {
            std::vector<Call> kept;
            for (const Call& write : writes) {
                for (std::size_t at = 0; at == 0 || at < write.other.size(); at += 512) {
                    Call part = write;
                    if (write.kind == Call::Write) {
                        part.place += at;
                        part.other = write.other.substr(at, 512);
                    }
                    if (random() % 2 != 0) kept.push_back(part);
                }
            }
            std::shuffle(kept.begin(), kept.end(), random);
            for (const Call& write : kept) apply(write);
        }
        for (const Call& name : pending_) {
            if (random() % 2 != 0) rename(names_, name);
        }
        Files files;
        for (const auto& [name, file] : names_) files[name] = bytes_[file];
        lay(folder, files);
        std::map<ino_t, std::string> first;
        for (const auto& [name, file] : names_) {
            const auto [other, isFirst] = first.emplace(file, name);
            if (isFirst) continue;
            std::filesystem::remove(folder + "/" + name);
            std::filesystem::create_hard_link(folder + "/" + other->second, folder + "/" + name);
        }
    }

private:
    using Names = std::map<std::string, ino_t>;

    void apply(const Call& call) {
        std::string& bytes = bytes_[call.file];
        if (call.kind == Call::Cut) return bytes.resize(call.place);
        if (bytes.size() < call.place + call.other.size()) {
            bytes.resize(call.place + call.other.size());
        }
        call.other.copy(bytes.data() + call.place, call.other.size());
    }

    static void rename(Names& names, const Call& call) {
        const bool here = names.contains(call.name) && names[call.name] == call.file;
        if (call.kind == Call::Create) names[call.name] = call.file;
        if (call.kind == Call::Rename || call.kind == Call::Link) names[call.other] = call.file;
        if (here && (call.kind == Call::Rename || call.kind == Call::Unlink)) {
            names.erase(call.name);
        }
    }

    Names names_, shown_;
    std::map<ino_t, std::string> bytes_;
    std::map<ino_t, std::vector<Call>> writes_;
    std::vector<Call> pending_;
};

}  // namespace test
