// Runs files through a fuzz target without a fuzzer: every file named on the command line, and
// every file below a folder named there.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

bool replayFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    const std::vector<char> text(std::istreambuf_iterator<char>(in), {});
    // A copy of exactly the size, so that a sanitizer sees one byte read too far.
    const std::vector<std::uint8_t> bytes(text.begin(), text.end());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    int files = 0;
    bool good = true;
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i])) {
            good = replayFile(argv[i]) && good;
            ++files;
            continue;
        }
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(argv[i])) {
            if (!entry.is_regular_file()) continue;
            good = replayFile(entry.path()) && good;
            ++files;
        }
    }
    std::printf("%d files\n", files);
    return good && files != 0 ? 0 : 1;
}
