// What set_filter prepares once: its edges.
#include "support.h"

using namespace mira;
using namespace test;

namespace {

mira::DbfBase* sorted = nullptr;
int sortOnce() { return sorted->SortOrder == nullptr && SortBase(sorted, "N", nullptr) == 0; }

TEST(Prepared, ABlankNumberShownAsStoredIsOneCharacterLonger) {
    const TempDir dir;
    const Table table = openLayout(dir, {.columns = {{"N", 'N', 24}}, .records = {padded("", 25)}});
    DbfBase* const h = table.get();
    h->RawNumeric = 1;
    for (const auto& [blanks, passing] : {std::pair{484u, 1u}, {485u, 0u}}) {
        ASSERT_EQ(set_filter(h, ("N=0" + padded("", blanks)).c_str(), nullptr), h);
        EXPECT_EQ(reccount(h), passing) << blanks;
        ClearAllFilter(h);
    }
}

TEST(Prepared, ACallbackThatSortsLeavesNoOrder) {
    const TempDir dir;
    const Table table =
        openLayout(dir, {.columns = {{"N", 'N', 1}}, .records = {" 3", " 2", " 1"}});
    sorted = table.get();
    ASSERT_EQ(set_filter(sorted, "N>1", sortOnce), sorted);
    EXPECT_EQ(sorted->SortOrder, nullptr);
    EXPECT_NE(sorted->FilterIndex, nullptr);
}

}  // namespace
