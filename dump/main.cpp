// Prints every field of every record of a table as text, one record per line.
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "mira.h"

namespace {

constexpr std::size_t kFull = 1 << 16;     // characters that are written at once, or some more
constexpr std::size_t kLongest = 1 << 17;  // more than a text, its separator and a line end

/// Copies a text without its zero byte; returns the end of the copy. Whole words are copied, as
/// GetStr writes them and TextBuffer has room for: looking for the end first would wait for bytes
/// that have just been written.
char* append(char* to, const char* text) {
    for (;; to += sizeof(std::uint64_t), text += sizeof(std::uint64_t)) {
        std::uint64_t word;
        std::memcpy(&word, text, sizeof word);
        std::memcpy(to, &word, sizeof word);
        // Non-zero when a byte is zero; the lowest bit belongs to the first of them.
        const std::uint64_t end = (word - 0x0101010101010101) & ~word & 0x8080808080808080;
        if (end == 0) continue;
        if (std::endian::native != std::endian::little) return to + std::strlen(to);
        return to + std::countr_zero(end) / 8;
    }
}

void dump(mira::DbfBase* table) {
    static char buffer[kFull + kLongest];
    char* to = buffer;
    const mira::u32 records = mira::reccount(table);
    const int fields = static_cast<int>(mira::fieldcount(table));
    for (mira::u32 position = 0; position < records; ++position) {
        mira::ReadRecord(table, position);  // after a failure the record buffer is printed as it is
        for (int field = 0; field < fields; ++field) {
            to = append(to, mira::GetStr(table, field));
            *to++ = '|';
            if (to > buffer + kFull) {
                std::fwrite(buffer, 1, static_cast<std::size_t>(to - buffer), stdout);
                to = buffer;
            }
        }
        *to++ = '\n';
    }
    std::fwrite(buffer, 1, static_cast<std::size_t>(to - buffer), stdout);
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    if (mira::DbfBase* table = mira::OpenBase(argc > 1 ? argv[1] : "test.dbf")) {
        dump(table);
        mira::CloseBase(table);
    }
    return 0;
}
