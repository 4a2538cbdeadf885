// Prints every field of every record of a table as text, one record per line.
#include <cstdio>

#include "mira.h"

namespace {

/// Standard output through one large buffer.
class Output {
public:
    /// A text of a field and a separator. Texts are copied byte by byte: whoever looks for the end
    /// of a text first has to wait for the bytes that have just been written.
    void put(const char* text, char separator) {
        if (used_ > sizeof buffer_ - kLongest) flush();
        char* to = buffer_ + used_;
        while (*text != 0) *to++ = *text++;
        *to++ = separator;
        used_ = static_cast<std::size_t>(to - buffer_);
    }
    void put(char c) { buffer_[used_++] = c; }
    void flush() {
        std::fwrite(buffer_, 1, used_, stdout);
        used_ = 0;
    }

private:
    static constexpr std::size_t kLongest = 65535 + 1 + 1;  // a text, its separator, a line end
    char buffer_[2 * kLongest];
    std::size_t used_ = 0;
};

void dump(mira::DbfBase* table, Output& out) {
    const mira::u32 records = mira::reccount(table);
    const int fields = static_cast<int>(mira::fieldcount(table));
    for (mira::u32 position = 0; position < records; ++position) {
        mira::ReadRecord(table, position);  // after a failure the record buffer is printed as it is
        for (int field = 0; field < fields; ++field) out.put(mira::GetStr(table, field), '|');
        out.put('\n');
    }
    out.flush();
}

}  // namespace

int main(int argc, char** argv) {
    static Output out;
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    if (mira::DbfBase* table = mira::OpenBase(argc > 1 ? argv[1] : "test.dbf")) {
        dump(table, out);
        mira::CloseBase(table);
    }
    return 0;
}
