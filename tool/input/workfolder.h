// A folder for files that are not whole yet.
#pragma once

#include <filesystem>

namespace mira::tool {

/// A folder beside a file, gone with all in it when this is. It is locked meanwhile, so that the
/// next one made in the same place can tell, and remove, what a program that was killed has left.
class WorkFolder {
public:
    /// Throws a Refusal.
    explicit WorkFolder(const std::filesystem::path& beside);
    ~WorkFolder();
    WorkFolder(const WorkFolder&) = delete;
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
    int lock_;
};

}  // namespace mira::tool
