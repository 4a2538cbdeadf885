// Tables as a hostile writer makes them, as Arrow streams under any options: a stream whose arrays
// are sound and hold what the reader of the tables gives, or an error text.
//
//   0  4  options      4  2  length of the memo file      6  memo file, then the table file
#include <unistd.h>

#include "arrow/arrays.h"
#include "property.h"
#include "support/tables.h"

namespace test {
namespace {

void check(Input& input) {
    static const Folder folder;
    static const std::string path = folder.file("t.dbf");
    const u32 options = input.number<u32>();
    const std::string memos = input.text(input.number<u16>());
    for (const char* const extension : {".dbt", ".fpt", ".smt"}) {
        writeAll(path.substr(0, path.size() - 4) + extension, memos);
    }
    writeAll(path, input.text(kArrow.limit));
    MiraArrowOptions given = arrowOptions();
    given.deleted = static_cast<std::uint8_t>(options % 4);
    given.exact_decimals = static_cast<std::uint8_t>(options >> 2 & 1);
    given.long_names = static_cast<std::uint8_t>((options >> 3 & 15) == 0);
    given.batch_records = (options >> 7 & 1) != 0 ? 1 + (options >> 8 & 7) : 0;
    given.first = options >> 11 & 3;
    constexpr const char* kTypes[] = {nullptr, "1=text,2=text,3=binary", "1=double,2=decimal",
                                      "1=int64"};
    given.types = kTypes[options >> 13 & 3];
    constexpr const char* kPages[] = {nullptr, "CP866", "UTF-8", "CP932"};
    given.code_page = kPages[options >> 15 & 3];
    given.columns = (options >> 17 & 3) == 0 ? "2,_record,1,_deleted" : nullptr;
    checkStream(path, given, options >> 19 & 15);
    given.where = (options >> 23 & 1) != 0 ? "1=a|1>5" : nullptr;
    if (given.where != nullptr) readStream(path, given);
}

}  // namespace

const Surface kArrow = {"arrow", check, 4096};

}  // namespace test
