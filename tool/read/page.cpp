// mira page: the page that opens tables, with a table already in it.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "command/command.h"
#include "select/opening.h"
#include "select/selection.h"
#include "tables/open/find.h"
#include "tables/page/json.h"
#include "tables/page/refusal.h"
#include "tables/unpack/archive.h"
#include "tables/value/plain.h"
#include "terminal/message.h"

namespace mira::tool {
namespace {

namespace fs = std::filesystem;

constexpr u64 kMost = u64{32} << 20;  // bytes of all files together
constexpr std::string_view kPlace = "<!-- tables -->";

struct Options {
    std::string table;
    std::string out;
    bool force = false;
    TableOptions open;
};

/// The page as it is installed: below the folder that the program is in, unless MIRA_PAGE names it.
std::string pageFile() {
    if (const char* const named = std::getenv("MIRA_PAGE")) return named;
    std::error_code ignored;
    const fs::path program = fs::read_symlink("/proc/self/exe", ignored);
    return (program.parent_path().parent_path() / "share/mira/mira.html").string();
}

std::string wholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(file), {}};
    if (!file) refuse(path, ": cannot be read");
    return bytes;
}

std::string pageText() {
    const std::string path = pageFile();
    if (!fs::is_regular_file(path)) {
        refuse(path, ": the page is not there; scripts/page builds it, and MIRA_PAGE names it");
    }
    std::string page = wholeFile(path);
    if (page.find(kPlace) == std::string::npos) refuse(path, ": no page to put a table into");
    return page;
}

/// A file that goes into the page.
struct Part {
    std::string path;
    Readable file;  ///< of an archive, unpacked
};

/// The table and what belongs to it.
std::vector<Part> partsOf(const Table& table) {
    std::vector<Part> parts;
    const std::string named = memoFileOf(table);
    const std::string memos = named.empty() ? named : inAnyCase(named);
    for (const std::string& path : {table.path, memos, beside(table.path, ".cpg")}) {
        if (path.empty()) continue;
        Readable file = readable(path);
        if (fs::is_regular_file(file.path)) parts.push_back({path, std::move(file)});
    }
    return parts;
}

/// A script element of data. No "<" in it, which could end the element.
std::string dataOf(const std::vector<Part>& parts, const std::string& codePage) {
    std::string list;
    for (const Part& part : parts) {
        JsonObject object;
        object.text("name", fs::path(part.path).filename().string());
        object.text("page", &part == parts.data() ? codePage : "");
        std::string base64;
        putBase64(base64, wholeFile(part.file.path));
        object.text("base64", base64);
        list += (list.empty() ? "[" : ",") + object.whole();
    }
    std::string data = "<script type=\"application/json\" id=\"tables\">";
    for (const char c : list) {
        if (c == '<') {
            data += "\\u003c";
        } else {
            data += c;
        }
    }
    return data + "]</script>";
}

Status run(const Options& options) {
    const auto table = openToRead(options.table, options.open);
    const std::vector<Part> parts = partsOf(*table);
    std::vector<std::string> inputs;
    u64 bytes = 0;
    for (const Part& part : parts) {
        inputs.push_back(part.path);
        bytes += fs::file_size(part.file.path);
    }
    if (bytes > kMost) {
        refuse(table->path, ": its files are larger than 32 MiB together; open ", pageFile(),
               " and drop them there");
    }
    std::string page = pageText();
    const std::string out = options.out.empty() ? stemOf(table->path) + ".html" : options.out;
    const Target target = targetOf(out);
    checkTargets({target}, options.force, inputs);
    page.replace(page.find(kPlace), kPlace.size(), dataOf(parts, options.open.codePage));
    Output output(target, options.force);
    output.put(page);
    output.finish();
    tellPage(*table);
    note("{}: {} in it", out, counted(table->base->Header.RecordCount, "record"));
    return kDone;
}

}  // namespace

void addPage(CLI::App& program, Job& job) {
    const auto [command, options] =
        newCommand(program, job, "page", "A page for the browser with a table in it", run,
                   "The page works offline and sends nothing. Examples:\n"
                   "  mira page stock\n"
                   "  mira page stock -o for-leeds.html");
    command.add_option("table", options.table, "Table, up to 32 MiB with its memo file")
        ->type_name("TABLE")
        ->required();
    command.add_option("-o,--output", options.out, "The page; by default the table's name, .html")
        ->type_name("FILE");
    command.add_flag("--force", options.force, "Replace a file that is there");
    command.add_option("--code-page", options.open.codePage, "Code page of the texts")
        ->type_name("NAME");
}

}  // namespace mira::tool
