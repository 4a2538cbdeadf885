// mira page: the page that opens tables, with a table already in it.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

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
    const char* const named = std::getenv("MIRA_PAGE");
    if (named != nullptr && *named != 0) return named;
    std::error_code ignored;
    const fs::path program = fs::read_symlink("/proc/self/exe", ignored);
    return (program.parent_path().parent_path() / "share/mira/mira.html").string();
}

/// A path of the file system or into an archive. What the table holds unpacked is not unpacked
/// again.
std::string wholeFile(const std::string& path) {
    const Readable opened = readable(path);
    std::ifstream file(opened.path, std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(file), {}};
    if (!file) refuse(path, ": cannot be read");
    return bytes;
}

std::string pageText() {
    const std::string path = pageFile();
    if (!fs::is_regular_file(path)) {
        refuse(path,
               ": the page is not there; scripts/page of the sources builds it, and MIRA_PAGE "
               "names it");
    }
    std::string page = wholeFile(path);
    if (page.find(kPlace) == std::string::npos) refuse(path, ": no page to put a table into");
    return page;
}

/// The table and what belongs to it.
std::vector<std::string> filesOf(const Table& table) {
    std::vector<std::string> files{table.path};
    const std::string named = memoFileOf(table);
    const std::string memos = named.empty() ? named : inAnyCase(named);
    for (const std::string& file : {memos, beside(table.path, ".cpg")}) {
        if (!file.empty() && fs::is_regular_file(readable(file).path)) files.push_back(file);
    }
    return files;
}

/// A script element of data. No "<" in it, which could end the element.
std::string dataOf(const std::vector<std::string>& files, const std::string& codePage) {
    std::string list;
    for (const std::string& file : files) {
        JsonObject object;
        object.text("name", fs::path(file).filename().string());
        object.text("page", &file == files.data() ? codePage : "");
        std::string base64;
        putBase64(base64, wholeFile(file));
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

/// Where the page goes: not over a table whose name has slipped in, nor over the page to fill.
Target targetFor(const std::string& out) {
    Target target = targetOf(out);
    const std::string extension = fs::path(out).extension().string();
    const bool named = target.regular && !target.path.empty() && target.descriptor < 0;
    if (named && !sameText(extension, ".html") && !sameText(extension, ".htm")) {
        refuse(out, ": a page is called NAME.html");
    }
    checkTargets({target}, true, {pageFile()});
    return target;
}

Status run(const Options& options) {
    const auto table = openToRead(options.table, options.open);
    const std::vector<std::string> files = filesOf(*table);
    u64 bytes = 0;
    for (const std::string& file : files) bytes += fs::file_size(readable(file).path);
    if (bytes > kMost) {
        refuse(table->path, ": its files are larger than 32 MiB together; open ", pageFile(),
               " and drop them there");
    }
    std::string page = pageText();
    const std::string out = options.out.empty() ? stemOf(table->path) + ".html" : options.out;
    const Target target = targetFor(out);
    checkTargets({target}, options.force, files);
    page.replace(page.find(kPlace), kPlace.size(), dataOf(files, options.open.codePage));
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
