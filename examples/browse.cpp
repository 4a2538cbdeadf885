// Shows a page of a view: browse TABLE FILTER SORT PAGE [NAME=EXPRESSION]
//
// What it teaches: define calculated fields, then filter, then sort; ask for headings and widths;
// read by position. An empty FILTER or SORT leaves that out. Ctrl-C stops a filter or a sort.
// `mira show` does this, code pages and terminals, for daily use.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "mira.h"

namespace {

constexpr mira::u32 kRows = 3;

volatile std::sig_atomic_t interrupted = 0;

int stopWanted() { return interrupted; }

struct Closer {
    void operator()(mira::DbfBase* table) const {
        mira::FreeMemCalcField(table);  // the library leaves it to whoever made it
        mira::CloseBase(table);
    }
};
using Table = std::unique_ptr<mira::DbfBase, Closer>;

/// Fields of the table and calculated ones; their numbers follow each other.
int columnCount(mira::DbfBase* table) {
    const mira::CalcFieldTable* calculated = table->CalcFields;
    return table->FieldCount + static_cast<int>(calculated != nullptr ? calculated->Count : 0);
}

bool define(mira::DbfBase* table, const std::string& definition) {
    const std::size_t equals = definition.find('=');
    if (equals == std::string::npos || mira::GetMemCalcField(table) == 0) return false;
    return mira::AddCalcField(table, definition.substr(0, equals).c_str(),
                              definition.substr(equals + 1).c_str()) != 0;
}

bool select(mira::DbfBase* table, const char* filter, const char* sort) {
    if (*filter != 0 && mira::set_filter(table, filter, stopWanted) == nullptr) return false;
    return *sort == 0 || mira::SortBase(table, sort, stopWanted) != 0;
}

void printRow(mira::DbfBase* table, bool heading) {
    for (int field = 0; field < columnCount(table); ++field) {
        const int width = std::max(mira::GetLenMax(table, field), mira::GetLenHeader(table, field));
        const char* text = heading ? mira::GetHeader(table, field) : mira::GetStr(table, field);
        std::printf("%*s ", width, text != nullptr ? text : "");  // null: no value
    }
    std::printf("\n");
}

int fail(const char* why) {
    std::fprintf(stderr, "browse: %s\n", why);
    return 1;
}

int browse(int argc, char** argv) {
    const Table table(mira::OpenBaseRO(argv[1]));
    if (table == nullptr) return fail("cannot be opened");
    table->DateFormat = 1;
    if (argc > 5 && !define(table.get(), argv[5])) return fail("no such calculated field");
    if (!select(table.get(), argv[2], argv[3])) return fail("no such view");
    const mira::u32 count = mira::reccount(table.get());
    const mira::u32 page = static_cast<mira::u32>(std::max(1, std::atoi(argv[4])));
    printRow(table.get(), true);
    for (mira::u32 p = (page - 1) * kRows; p < std::min(count, page * kRows); ++p) {
        if (mira::ReadRecord(table.get(), p) != 0) printRow(table.get(), false);
    }
    std::printf("Page %u of %u records.\n", page, count);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) return 2;
    std::signal(SIGINT, [](int) { interrupted = 1; });
    return browse(argc, argv);
}
