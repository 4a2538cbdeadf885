// Every allocation fails once, and every read of records.
#include <gtest/gtest.h>

#include "arrow/arrays.h"
#include "arrow/tables.h"
#include "support/allocator.h"
#include "support/wrap.h"

namespace {

int allocationsLeft = 0;  // the last of these fails; 0 for none
int readsLeft = 0;
bool met = false;

bool fails(int& left) {
    if (left == 0 || --left != 0) return false;
    return met = true;
}

}  // namespace

extern "C" {
WRAP(void*, malloc, fails(allocationsLeft), nullptr, (std::size_t size), (size))
WRAP(void*, calloc, fails(allocationsLeft), nullptr, (std::size_t count, std::size_t size),
     (count, size))
WRAP(void*, realloc, fails(allocationsLeft), nullptr, (void* old, std::size_t size), (old, size))
WRAP(std::size_t, fread, fails(readsLeft), 0,
     (void* to, std::size_t size, std::size_t count, std::FILE* file), (to, size, count, file))
}

namespace test {
namespace {

/// Opens and reads a table; the rows, or -1 when that failed, said with a text.
i64 readWith(const std::string& path, int allocations, int reads) {
    MiraArrowOptions options = arrowOptions();
    options.columns = "F0,F1,_record";
    options.types = "F0=text,F1=text";
    options.where = "F0<>q";
    ArrowArrayStream stream{};
    ArrowSchema schema{};
    char message[256] = "";
    allocationsLeft = allocations;
    met = false;
    i64 rows = 0;
    int result = mira_arrow_open(path.c_str(), &options, &stream, message, sizeof message);
    EXPECT_EQ(result == 0, message[0] == '\0') << message;
    if (result == 0) {
        readsLeft = reads;
        result = stream.get_schema(&stream, &schema);
        if (result == 0) schema.release(&schema);
        ArrowArray array{};
        while (result == 0 && (result = stream.get_next(&stream, &array)) == 0 &&
               array.release != nullptr) {
            rows += array.length;
            array.release(&array);
        }
        EXPECT_TRUE(result == 0 || stream.get_last_error(&stream) != nullptr || result == ENOMEM);
        stream.release(&stream);
    }
    allocationsLeft = readsLeft = 0;
    return result == 0 ? rows : -1;
}

TEST(ArrowFaults, AllocationsAndReadsFailInTurn) {
    const Folder folder;
    const std::string path = folder.file("t.dbf");
    Layout layout{0x30, {{"F0", 'C', 200}, {"F1", 'N', 18, 3}, {"F2", 'M', 4}}};
    for (int i = 0; i < 4000; ++i)
        layout.records.push_back(' ' + padded(printed("text %d \x80", i), 222));
    std::string bytes = layout.bytes();
    bytes[29] = '\x03';  // says the page: the guesser of pages loses memory when some is refused
    writeAll(path, bytes);
    ASSERT_EQ(readWith(path, 0, 0), 4000);
    for (const bool reads : {false, true}) {
        int count = 0;
        do {
            ++count;
            const i64 rows = readWith(path, reads ? 0 : count, reads ? count : 0);
            EXPECT_TRUE(rows == -1 || rows == 4000) << count << ": " << rows;
        } while (met && !HasFailure());
        EXPECT_GT(count, reads ? 10 : 100);
    }
}

}  // namespace
}  // namespace test
