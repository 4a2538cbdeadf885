#include "tables/unpack/nameless.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tables/page/refusal.h"

namespace mira::tables {
namespace {

int openNameless() {
    const char* const given = std::getenv("TMPDIR");
    const std::string folder = given != nullptr && *given != 0 ? given : "/tmp";
    int descriptor =
        open(folder.c_str(), O_TMPFILE | O_RDWR | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (descriptor < 0) {  // a file system that always wants a name
        std::string path = folder + "/mira-XXXXXX";
        descriptor = mkostemp(path.data(), O_CLOEXEC);
        if (descriptor >= 0) unlink(path.c_str());
    }
    if (descriptor < 0) {
        refuse(folder, ": no temporary file can be made: ", std::strerror(errno),
               "; TMPDIR names another folder");
    }
    return descriptor;
}

}  // namespace

NamelessFile::NamelessFile()
    : descriptor_(openNameless()), path_(textOf("/proc/self/fd/", descriptor_)) {}
NamelessFile::~NamelessFile() { close(descriptor_); }

}  // namespace mira::tables
