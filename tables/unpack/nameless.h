// A file without a name in the folder for temporary files: nothing stays of it, however the program
// ends.
#pragma once

#include <string>

namespace mira::tables {

class NamelessFile {
public:
    /// Empty. Throws a Refusal when none can be made.
    NamelessFile();
    ~NamelessFile();
    NamelessFile(const NamelessFile&) = delete;

    int descriptor() const { return descriptor_; }
    /// By which this process can open it as long as it lives.
    const std::string& path() const { return path_; }

private:
    int descriptor_;
    std::string path_;
};

}  // namespace mira::tables
