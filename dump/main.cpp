// Prints every field of every record of a table as text, one record per line.
#include <cstdio>

#include "mira.h"

namespace {

constexpr std::size_t kOutputBuffer = 1 << 16;

void dump(mira::DbfBase* table) {
    for (mira::u32 position = 0; position < mira::reccount(table); ++position) {
        mira::ReadRecord(table, position);  // after a failure the record buffer is printed as it is
        for (mira::u32 field = 0; field < mira::fieldcount(table); ++field) {
            const char* text = mira::GetStr(table, static_cast<int>(field));
            std::fputs(text != nullptr ? text : "", stdout);
            std::fputc('|', stdout);
        }
        std::fputc('\n', stdout);
    }
}

}  // namespace

int main(int argc, char** argv) {
    static char buffer[kOutputBuffer];
    std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
    if (mira::DbfBase* table = mira::OpenBase(argc > 1 ? argv[1] : "test.dbf")) {
        dump(table);
        mira::CloseBase(table);
    }
    return 0;
}
