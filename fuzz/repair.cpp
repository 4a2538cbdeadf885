// Any file as a damaged table, under any options: a new table in which nothing is wrong, or a
// refusal.
//
//   0  4  options      4  2  length of the memo file      6  memo file, then the table file
#include <filesystem>

#include "property.h"
#include "support/tables.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"
#include "tables/rescue/rescue.h"
#include "tables/value/value.h"

namespace test {
namespace {

namespace tables = mira::tables;

/// A sound table that the damaged one is said to be like.
const std::string& soundTable(const Folder& folder) {
    static const std::string path = [&] {
        DbfField fields[3]{};
        CreateField(&fields[0], "NAME", 'C', 5);
        CreateField(&fields[1], "PRICE", 'N', 6);
        CreateField(&fields[2], "NOTE", 'M', 10);
        std::string made = folder.file("like.dbf");
        CreateDatabase(made.c_str(), fields, 3, 0, 512, 1);
        return made;
    }();
    return path;
}

void checkSound(const std::string& path, u64 saved) {
    const auto table = tables::openTable(path, {.codePage = "CP437"});
    const DbfHeader& header = table->base->Header;
    CHECK_EQUAL(header.RecordCount, saved);
    CHECK_EQUAL(table->storedCount, saved);
    CHECK_EQUAL(table->fileSize,
                Calc64(header.RecordLength, header.RecordCount, header.HeaderLength) + 1);
    tables::CellReader cells(*table);
    for (u32 record = 0; record < header.RecordCount; ++record) {
        tables::readRecord(*table, record);
        const u8 mark = table->base->RecordBuffer[0];
        CHECK(mark == ' ' || mark == '*');
        for (const tables::Column& column : table->columns) {
            tables::Value value;
            tables::readCell(cells, column, value);
            using tables::Fault;
            // Of a version whose memos nobody reads, references stay as they stand.
            const bool unread = table->memoFormat == tables::MemoFormat::None;
            CHECK(value.fault == Fault::None || value.fault == Fault::NoCharacter ||
                  (value.fault == Fault::NoMemo && unread));
        }
    }
}

void check(Input& input) {
    static const Folder folder;
    static const std::string path = folder.file("t.dbf"), made = folder.file("n.dbf");
    const u32 options = input.number<u32>();
    const std::string memos = input.text(input.number<u16>());
    for (const char* const extension : {".dbt", ".fpt", ".smt"}) {
        writeAll(path.substr(0, path.size() - 4) + extension, memos);
        std::filesystem::remove(made.substr(0, made.size() - 4) + extension);
    }
    std::filesystem::remove(made);
    writeAll(path, input.text(kRepair.limit));
    u64 saved = 0;
    try {
        const auto like = options % 4 == 0 ? tables::openTable(soundTable(folder), {}) : nullptr;
        tables::Damaged damaged = tables::examine(path, like.get());
        tables::layTable(made, damaged.layout.head);
        const auto to = tables::openTable(made, {.codePage = "CP437", .writable = true});
        const u32 block = (options >> 2 & 3) == 0 ? options >> 16 : 0;
        const std::string from = tables::memosOfDamaged(path, *to);
        saved = tables::rescue(damaged, *to, from, block, {}).saved;
    } catch (const tables::Refusal&) {
        return;
    }
    checkSound(made, saved);
}

}  // namespace

const Surface kRepair = {"repair", check, 4096};

}  // namespace test
