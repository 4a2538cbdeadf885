// Record filters: applying them to the records of the view.
//
// A filter is taken apart once: where the conditions stand and what is between them does not depend
// on the record. Where that is nothing but parentheses and connectives, the arithmetic amounts to
// "and" and "or", and set_filter tests only the conditions that the result depends on.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "arithmetic.h"
#include "dbf/table/position.h"
#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "dbf/view/pieces.h"
#include "internal/convert.h"
#include "internal/file.h"
#include "internal/restore.h"

namespace mira {

namespace {

constexpr std::size_t kLogicLength = 1023;

void putLogic(FilterWork& work, std::string_view text) {
    const std::size_t count = std::min(text.size(), kLogicLength - work.LogicLength);
    if (count != 0) std::memcpy(work.LogicText + work.LogicLength, text.data(), count);
    work.LogicLength += static_cast<u32>(count);
    work.LogicText[work.LogicLength] = 0;
}

/// Appends the arithmetic of a piece to LogicText.
void putPiece(DbfBase* h, const FilterPiece& piece) {
    FilterWork& work = *h->FilterState;
    putLogic(work, piece.before);
    putLogic(work, conditionHolds(h, piece.condition) ? "1" : "0");
    putLogic(work, piece.after);
}

/// Runs what prepares; false without memory. What hooks throw while records are tested passes
/// through, be it for want of memory.
template <typename Work>
bool withMemory(const Work& work) {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// --------------------------------------------------------------------------------------------
// The prepared filter
// --------------------------------------------------------------------------------------------

struct PreparedFilter {
    std::string text;
    i32 noBracketCheck = 0;  // what the preparation is good for
    bool every = false;      // takes every record
    bool andOr = false;      // the arithmetic amounts to "and" and "or"
    std::vector<FilterPiece> pieces;
    std::string logic;  // the arithmetic text, a 1 for every condition
};

/// False when the text does not fit the work area: a piece, the connectives, or the arithmetic
/// text, whose length is known beforehand and which parse would refuse for every record.
bool prepareFilter(DbfBase* h, const char* text, PreparedFilter& f) {
    f.every = takesEvery(text);
    if (f.every) return true;
    f.text = text;
    f.noBracketCheck = h->NoBracketCheck;
    if (!readPieces(h, f.text, h->FilterState->Cuts, &f.pieces)) return false;
    if (!isBalanced(h, f.text)) f.pieces.clear();  // an empty arithmetic text fails
    f.logic = logicOf(f.pieces);
    return f.logic.size() <= kParseLength;
}

/// Prepares what saves time with many records.
void prepareShortcuts(DbfBase* h, PreparedFilter& f) {
    for (FilterPiece& piece : f.pieces) prepareStored(h, piece.condition);
    const auto ones = std::count(f.logic.begin(), f.logic.end(), '1');
    const bool andOr = static_cast<std::size_t>(ones) == f.pieces.size() &&
                       f.logic.find_first_not_of("()*+ 1") == std::string::npos;
    std::string computed = f.logic;
    f.andOr = andOr && logicHolds(computed.data());
    std::erase(f.logic, ' ');
}

/// Reads an arithmetic text that amounts to "and" and "or", and tests a condition only where the
/// result depends on it. A text has at most 79 characters, which bounds the recursion.
///
///   sum      product { "+" product }
///   product  factor { "*" factor }
///   factor   "1" | "(" sum ")"
class AndOrReader {
public:
    AndOrReader(DbfBase* h, const PreparedFilter& f)
        : base_(h), at_(f.logic.c_str()), piece_(f.pieces.data()) {}

    bool sum(bool needed) {
        bool result = product(needed);
        while (take('+')) result |= product(needed && !result);
        return result;
    }

private:
    bool product(bool needed) {
        bool result = factor(needed);
        while (take('*')) result &= factor(needed && result);
        return result;
    }
    bool factor(bool needed) {
        if (!take('(')) {
            ++at_;
            const Condition& condition = (piece_++)->condition;
            return needed && conditionHolds(base_, condition);
        }
        const bool result = sum(needed);
        ++at_;
        return result;
    }
    bool take(char c) {
        if (*at_ != c) return false;
        ++at_;
        return true;
    }

    DbfBase* base_;
    const char* at_;
    const FilterPiece* piece_;
};

/// Tests the record in RecordBuffer.
bool passes(DbfBase* h, const PreparedFilter& f) {
    if (h->SkipDeleted != 0 && h->RecordBuffer[0] == kDeleted) return false;
    if (f.every) return true;
    if (h->NoBracketCheck != f.noBracketCheck) return ValidRecord(h, f.text.c_str()) != 0;
    if (f.andOr) return AndOrReader(h, f).sum(true);
    h->FilterState->LogicLength = 0;
    h->FilterState->LogicText[0] = 0;
    for (const FilterPiece& piece : f.pieces) putPiece(h, piece);
    return logicHolds(h->FilterState->LogicText);
}

// --------------------------------------------------------------------------------------------
// Running it
// --------------------------------------------------------------------------------------------

/// Old and new filter text joined with "&"; null without memory.
Owned<char> joinTexts(const char* old, const char* text) {
    const std::size_t before = old != nullptr ? std::strlen(old) + 1 : 0;
    const std::size_t length = std::strlen(text);
    Owned<char> joined = allocate<char>(before + length + 1);
    if (!joined) return joined;
    if (before != 0) {
        std::memcpy(joined.get(), old, before - 1);
        joined.get()[before - 1] = '&';
    }
    std::memcpy(joined.get() + before, text, length + 1);
    return joined;
}

void dropIndex(DbfBase* h) {
    replace(h->FilterIndex);
    h->FilterCount = 0;
}

/// Takes a new index, given back what it does not use.
void takeIndex(DbfBase* h, Owned<u32> index, u32 count) {
    u32* const all = index.release();
    void* const used = std::realloc(all, std::max<std::size_t>(count, 1) * sizeof(u32));
    h->FilterIndex = used != nullptr ? static_cast<u32*>(used) : all;
    h->FilterCount = count;
}

/// Tests every record of the view and makes those that pass the view, or all records of the table
/// when the callback stops.
void selectRecords(DbfBase* h, const PreparedFilter& filter, StopCallback callback, u32 count,
                   Owned<u32> index) {
    bool stopped = false;
    u32 selected = 0;
    for (u32 position = 0; position < count && !stopped; ++position) {
        const std::optional<u32> record = recordAt(h, position);
        if (record) readPhysicalRecord(h, *record);  // what cannot be read is tested as it stands
        if (passes(h, filter) && record) index.get()[selected++] = *record;
        stopped = callback != nullptr && callback() != 0;
    }
    dropIndex(h);
    setSortOrder(h);  // of the old view, if a hook or the callback has sorted it
    if (!stopped) takeIndex(h, std::move(index), selected);
}

bool applyFilter(DbfBase* h, const char* text, StopCallback callback) {
    const char* const applied = text != nullptr ? text : h->FilterText;
    const u32 count = reccount(h);
    Owned<u32> index = allocate<u32>(std::size_t{count} + 1);
    const Owned<FilterWork> work = allocate<FilterWork>(1);
    if (applied == nullptr || !index || !work) return false;
    std::memset(work.get(), 0, sizeof *work);
    const Restore state(h->FilterState, work.get());
    PreparedFilter filter;
    const auto prepare = [&] {
        if (!prepareFilter(h, applied, filter)) return false;
        prepareShortcuts(h, filter);
        return true;
    };
    if (!withMemory(prepare)) return false;
    const bool adds = applied == text && !filter.every;
    Owned<char> other = adds ? joinTexts(h->FilterText, text) : nullptr;
    if (adds && !other) return false;
    if (adds) other.reset(std::exchange(h->FilterText, other.release()));
    Owned<u32> order(std::exchange(h->SortOrder, nullptr));
    const u32 orderCount = sortOrderCount(h);
    setSortOrderCount(h, 0);
    try {
        selectRecords(h, filter, callback, count, std::move(index));
    } catch (...) {
        if (adds) replace(h->FilterText, std::move(other));
        setSortOrder(h, std::move(order), orderCount);
        throw;
    }
    return true;
}

}  // namespace

DbfBase* set_filter(DbfBase* h, const char* text, StopCallback callback) {
    return h != nullptr && applyFilter(h, text, callback) ? h : nullptr;
}

int ViewRecords(DbfBase* h, u32 first, u32 end) {
    const u32 count = end > first ? end - first : 0;
    Owned<u32> index = allocate<u32>(std::size_t{count} + 1);
    if (!index) return 0;
    std::iota(index.get(), index.get() + count, first);
    ClearFilter(h);
    takeIndex(h, std::move(index), count);
    return 1;
}

int ValidRecord(DbfBase* h, const char* text) {
    if (text == nullptr || (h->FilterState == nullptr && !takesEvery(text))) return 0;
    PreparedFilter filter;
    return withMemory([&] { return prepareFilter(h, text, filter); }) && passes(h, filter);
}

int analizator(DbfBase* h, const char* text) {
    if (h->FilterState == nullptr) return 0;
    const u32 pieces = cutFilter(text, h->FilterState->Cuts);
    return isBalanced(h, text) ? static_cast<int>(pieces) : 0;
}

void eval(DbfBase* h, char connective) {
    if (h->FilterState == nullptr) return;
    FilterPiece piece;
    const auto prepare = [&] {
        piece = preparePiece(h, h->FilterState->PieceText, connective);
        return true;
    };
    if (withMemory(prepare)) putPiece(h, piece);
}

char cnd(DbfBase* h, const char* condition) {
    if (condition == nullptr || h->FilterState == nullptr) return '0';
    Condition prepared;
    const auto prepare = [&] {
        prepared = prepareCondition(h, condition);
        return true;
    };
    return withMemory(prepare) && conditionHolds(h, prepared) ? '1' : '0';
}

void ClearFilter(DbfBase* h) {
    ClearSort(h);
    dropIndex(h);
}

void ClearAllFilter(DbfBase* h) {
    ClearFilter(h);
    replace(h->FilterText);
}

void* ExternalFilter(DbfBase* /*h*/, u32 count) {
    return std::malloc(std::max<std::size_t>(count, 1) * 8);
}

}  // namespace mira
