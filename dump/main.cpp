// Prints every field of every record of a table as text, one record per line.
#include <cstdio>
#include <cstring>

#include "mira.h"

namespace {

/// Standard output through one large buffer.
class Output {
public:
    void put(const char* text, std::size_t length) {
        if (length > sizeof buffer_ - used_) flush();
        if (length > sizeof buffer_) {
            std::fwrite(text, 1, length, stdout);
            return;
        }
        std::memcpy(buffer_ + used_, text, length);
        used_ += length;
    }
    void put(char c) { put(&c, 1); }
    void flush() {
        std::fwrite(buffer_, 1, used_, stdout);
        used_ = 0;
    }

private:
    char buffer_[1 << 16];
    std::size_t used_ = 0;
};

void dump(mira::DbfBase* table, Output& out) {
    for (mira::u32 position = 0; position < mira::reccount(table); ++position) {
        mira::ReadRecord(table, position);  // after a failure the record buffer is printed as it is
        for (mira::u32 field = 0; field < mira::fieldcount(table); ++field) {
            const char* text = mira::GetStr(table, static_cast<int>(field));
            if (text != nullptr) out.put(text, std::strlen(text));
            out.put('|');
        }
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
