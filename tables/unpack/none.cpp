// Where libzip was not there when this was built.
#include "tables/page/refusal.h"
#include "tables/unpack/archive.h"

namespace mira::tables {
namespace {

[[noreturn]] void refuseAll(const std::string& archive) {
    refuse(archive, ": this was built without libzip, which reads archives; unpack it first");
}

}  // namespace

std::shared_ptr<const std::vector<std::string>> filesIn(const std::string& archive) {
    refuseAll(archive);
}

void setUnpackHook(void (* /*hook*/)()) {}

std::shared_ptr<const NamelessFile> unpack(const std::string& path) {
    if (const auto in = archivePath(path)) refuseAll(in->archive);
    return nullptr;
}

}  // namespace mira::tables
