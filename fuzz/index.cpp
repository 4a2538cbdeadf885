// Index files as a hostile writer makes them, beside a small table: whatever is not refused is read
// to its end, compared and rebuilt. A .cdx that is written from its own entries reads back the
// same, and one that is written from the table agrees with it.
//
//   0  1  kind      1  the file
#include "tables/index/index.h"

#include <fcntl.h>
#include <unistd.h>

#include "property.h"
#include "support/indexes.h"
#include "support/tables.h"
#include "tables/index/compare.h"
#include "tables/index/rebuild.h"
#include "tables/index/write.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"

namespace test {
namespace {

namespace tables = mira::tables;
using tables::IndexFile;

constexpr const char* kExtensions[] = {".cdx", ".idx", ".ntx", ".ndx", ".mdx"};
constexpr std::size_t kMostTags = 12;  // that are looked at: a directory may name one very often

/// A table of most types of fields, the last of which may be null.
struct Fixture {
    Folder folder;
    std::unique_ptr<tables::Table> table;

    Fixture() {
        const Layout layout{0x30,
                            {{"NAME", 'C', 3},
                             {"N", 'N', 6, 1},
                             {"DAY", 'D', 8},
                             {"COUNT", 'I', 4},
                             {"OK", 'L', 1},
                             {"NICK", 'C', 3},
                             {"_NullFlags", '0', 1}},
                            {" ab   25.019970711" + le(5, 4) + "Tab \0"s,
                             "*aa  -15.520240131" + le(0xFFFFFFFF, 4) + "F   \1",
                             " b     3.019970711" + le(0, 4) + "Fxy \0"s,
                             " ab        20240229" + le(7, 4) + " ab \0"s}};
        std::string bytes = layout.bytes();
        bytes[32 + 32 * 5 + 18] = 2;
        bytes[32 + 32 * 6 + 18] = 5;
        writeAll(folder.file("t.dbf"), bytes);
        table = tables::openTable(folder.file("t.dbf"), {});
    }
};

/// Throws a Refusal. Whatever the file says, it holds fewer entries than bytes.
std::vector<Entry> entriesOf(const IndexFile& file, const tables::Tag& tag) {
    std::vector<Entry> entries;
    eachEntry(file, tag, ' ', [&](std::string_view key, u32 record) {
        CHECK_EQUAL(key.size(), tag.keyLength);
        entries.push_back({std::string(key), record});
        CHECK(entries.size() <= file.size);
        return true;
    });
    return entries;
}

template <typename Write>
IndexFile written(const std::string& path, Write write) {
    writeAll(path, "");
    const int descriptor = open(path.c_str(), O_RDWR | O_CLOEXEC);
    CHECK(descriptor >= 0);
    write(descriptor);
    close(descriptor);
    return tables::openIndex(path);
}

void checkRewritten(const Fixture& fixture, const IndexFile& file, const char* extension) {
    const IndexFile again = written(fixture.folder.file("own"s + extension),
                                    [&](int to) { rewriteIndex(file, ' ', to); });
    CHECK_EQUAL(again.tags.size(), file.tags.size());
    for (std::size_t i = 0; i < file.tags.size(); ++i) {
        const tables::Tag &tag = file.tags[i], &copy = again.tags[i];
        CHECK_EQUAL(copy.name + '|' + copy.expression + '|' + copy.condition,
                    tag.name + '|' + tag.expression + '|' + tag.condition);
        CHECK(copy.unique == tag.unique && copy.descending == tag.descending);
        CHECK(entriesOf(again, copy) == entriesOf(file, tag));
    }
}

void checkRebuilt(const Fixture& fixture, const IndexFile& file) {
    if (!whyNotRebuilt(*fixture.table, file, true).empty()) return;
    const IndexFile made = written(fixture.folder.file("new.cdx"),
                                   [&](int to) { writeIndex(*fixture.table, file, to); });
    CHECK_EQUAL(made.tags.size(), file.tags.size());
    for (const auto& report : compareTags(*fixture.table, made))
        CHECK_EQUAL(sentenceOf(report), "");
}

void check(Input& input) {
    static const Fixture fixture;
    const char* const extension = kExtensions[input.below(std::size(kExtensions))];
    const std::string path = fixture.folder.file("t"s + extension);
    writeAll(path, input.text(kIndex.limit));
    try {
        IndexFile file = tables::openIndex(path);
        file.tags.resize(std::min(file.tags.size(), kMostTags));
        bool bitmap = false;
        for (const tables::Tag& tag : file.tags) {
            entriesOf(file, tag);
            bitmap = bitmap || tag.bitmap;
        }
        compareTags(*fixture.table, file);
        const bool compact =
            file.kind == tables::IndexKind::Cdx || file.kind == tables::IndexKind::CompactIdx;
        if (compact && !bitmap) checkRewritten(fixture, file, extension);
        checkRebuilt(fixture, file);
    } catch (const tables::Refusal&) {
        return;  // damaged, as it says
    }
}

}  // namespace

const Surface kIndex = {"index", check, 12288};

}  // namespace test
