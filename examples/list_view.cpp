// A list of the goods to look after: a calculated field, a filter, a sort order, one page of text.
//
//   list_view [TABLE]      made for the fields of samples/stock.dbf
#include <algorithm>
#include <cstdio>
#include <memory>

#include "mira.h"

namespace {

constexpr mira::u32 kRowsOnPage = 20;

struct CloseTable {
    void operator()(mira::DbfBase* table) const {
        mira::FreeMemCalcField(table);  // the application's, so not released by CloseBase
        mira::CloseBase(table);
    }
};

using Table = std::unique_ptr<mira::DbfBase, CloseTable>;

/// Prints one row; textOf gives its cells.
template <typename TextOf>
void printRow(mira::DbfBase* table, TextOf textOf) {
    const auto fields = static_cast<int>(mira::fieldcount(table));
    for (int field = 0; field < fields; ++field) {
        const int width =
            std::max(mira::GetLenView(table, field), mira::GetLenHeader(table, field));
        const bool right = mira::if_digit_type(table, field) != 0;
        const char* text = textOf(table, field);
        std::printf("%*s", right ? width : -width, text != nullptr ? text : "");
        std::fputs(field + 1 < fields ? " | " : "\n", stdout);
    }
}

void printPage(mira::DbfBase* table, mira::u32 page) {
    printRow(table, mira::GetHeader);
    const mira::u32 first = page * kRowsOnPage;
    const mira::u32 last = std::min(first + kRowsOnPage, mira::reccount(table));
    for (mira::u32 position = first; position < last; ++position) {
        if (mira::ReadRecord(table, position) != 0) printRow(table, mira::GetStr);
    }
}

/// The view: what is there of every good and worth how much, those to be ordered again first.
bool setView(mira::DbfBase* table) {
    table->DateFormat = 3;
    table->SkipDeleted = 1;
    table->SortDescending = 1;
    if (mira::GetMemCalcField(table) == 0) return false;
    if (mira::AddCalcField(table, "VALUE", "PRICE*STOCK") == 0) return false;
    table->CalcFields->FieldTotal = table->FieldCount + 1;  // fieldcount() includes it from now on
    return mira::set_filter(table, "PRICE>0&(STOCK>20|REORDER=T)", nullptr) != nullptr &&
           mira::SortBase(table, "REORDER, PRICE", nullptr) != 0;
}

}  // namespace

int main(int argc, char** argv) {
    const char* path = argc > 1 ? argv[1] : "samples/stock.dbf";
    const Table table(mira::OpenBaseRO(path));
    if (!table || !setView(table.get())) {
        std::fprintf(stderr, "list_view: %s cannot be shown\n", path);
        return 1;
    }
    printPage(table.get(), 0);
    return 0;
}
