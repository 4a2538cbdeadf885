// Record filters.
//
//   filter  condition { ("&" | "|") condition }     "&" binds tighter; parentheses group
//
// Every "&" and "|" is a connective, also inside quotes. A record is tested by writing the result
// of every condition as 1 or 0, "&" as "*" and "|" as "+" between the grouping parentheses, and by
// computing that arithmetic text: A=1&(B=2|C=3) becomes 1*(0+1). The record passes when the value,
// truncated, is not 0.
//
// The plain way, ValidRecord, does this for any text. set_filter prepares its text: where the
// conditions stand and what is between them does not depend on the record. Where that is nothing
// but parentheses and connectives, the arithmetic amounts to "and" and "or" of the conditions, and
// every condition knows which one to test next.
#include "dbf/view/filter.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "dbf/table/position.h"
#include "dbf/table/table.h"
#include "internal/convert.h"
#include "internal/file.h"
#include "internal/restore.h"

namespace mira {

namespace {

constexpr std::size_t kConnectives = 1023;  // as many as Cuts holds, and the length
constexpr std::size_t kPieceLength = 1023;
constexpr std::size_t kLogicLength = 1023;
constexpr std::size_t kParseLength = 79;

/// Stands for a filter that every record satisfies.
bool takesEvery(const char* text) { return reinterpret_cast<std::intptr_t>(text) == -1; }

bool isConnective(char c) { return c == '&' || c == '|'; }

/// The connective as arithmetic.
char connectiveSign(char c) { return c == '&' ? '*' : c == '|' ? '+' : c; }

i64 surplus(std::string_view text) {
    return std::count(text.begin(), text.end(), '(') - std::count(text.begin(), text.end(), ')');
}

/// A piece between connectives: parentheses that open groups, a condition, parentheses that close
/// groups; either side may be empty.
struct Piece {
    std::string_view opening, condition, closing;
};

/// The ")" from which on the text stays unbalanced.
std::size_t closingFrom(std::string_view piece) {
    std::size_t found = 0;
    i64 depth = 0;
    for (std::size_t i = 0; i < piece.size(); ++i) {
        if (piece[i] == ')' && depth-- == 0) found = i;
        if (piece[i] == '(') ++depth;
    }
    return found;
}

/// The "(" up to which the text stays unbalanced, seen from its end.
std::size_t openingTo(std::string_view piece) {
    std::size_t found = 0;
    i64 depth = 0;
    for (std::size_t i = piece.size(); i-- > 0;) {
        if (piece[i] == '(' && depth++ == 0) found = i;
        if (piece[i] == ')') --depth;
    }
    return found;
}

/// A piece that closes or opens groups is cut where they begin or end.
Piece cutPiece(const DbfBase* h, std::string_view piece) {
    const i64 open = h->NoBracketCheck != 0 ? 0 : surplus(piece);
    if (open == 0) return {{}, piece, {}};
    if (open < 0) {
        const std::size_t end = closingFrom(piece);
        return {{}, piece.substr(0, end), piece.substr(end)};
    }
    const std::size_t start = openingTo(piece) + 1;
    return {piece.substr(0, start), piece.substr(start), {}};
}

void putLogic(FilterWork& work, std::string_view text) {
    const std::size_t count = std::min(text.size(), kLogicLength - work.LogicLength);
    if (count != 0) std::memcpy(work.LogicText + work.LogicLength, text.data(), count);
    work.LogicLength += static_cast<u32>(count);
    work.LogicText[work.LogicLength] = 0;
}

/// The value of the arithmetic text; false when it fails.
bool logicHolds(char* logic) {
    int status = 1;
    return clampToI32(parse(logic, &status)) != 0;
}

bool isDeleted(const DbfBase* h) { return h->SkipDeleted != 0 && h->RecordBuffer[0] == '*'; }

// --------------------------------------------------------------------------------------------
// The prepared filter
// --------------------------------------------------------------------------------------------

constexpr std::size_t kPass = static_cast<std::size_t>(-1);
constexpr std::size_t kFail = static_cast<std::size_t>(-2);

/// A condition, and what its result leads to: another step, kPass or kFail.
struct Step {
    Condition condition;
    std::size_t onTrue, onFalse;
};

struct PreparedFilter {
    std::string text;
    i32 noBracketCheck = 0;  // what the preparation is good for
    std::vector<Step> steps;
    std::size_t first = kFail;       // step, or the result of every record
    std::string logic;               // the arithmetic text, a 1 for every condition
    std::vector<std::size_t> slots;  // places of the conditions in it
    bool chained = true;             // the steps lead to the result; else logic is computed
};

/// The end of an operand of "*": a condition or a group in parentheses.
std::size_t operandEnd(std::string_view logic, std::size_t i) {
    i64 depth = 0;
    for (; i < logic.size(); ++i) {
        if (logic[i] == '(') ++depth;
        if (logic[i] == ')') --depth;
        if (logic[i] != ' ' && depth == 0) return i + 1;
    }
    return i;
}

/// The ")" of the group around a place, or the end of the text.
std::size_t groupEnd(std::string_view logic, std::size_t i) {
    i64 depth = 0;
    for (; i < logic.size() && (logic[i] != ')' || depth != 0); ++i) {
        if (logic[i] == '(') ++depth;
        if (logic[i] == ')') --depth;
    }
    return i;
}

/// What to do once the text before place i has come to a result.
std::size_t following(const PreparedFilter& f, std::size_t i, bool result) {
    while (i < f.logic.size()) {
        const char c = f.logic[i++];
        if (c != '*' && c != '+') continue;  // a group ends with the result of its content
        if (result == (c == '*')) {
            const auto next = std::upper_bound(f.slots.begin(), f.slots.end(), i - 1);
            return static_cast<std::size_t>(next - f.slots.begin());
        }
        i = c == '*' ? operandEnd(f.logic, i) : groupEnd(f.logic, i);
    }
    return result ? kPass : kFail;
}

/// True when nothing but parentheses and connectives stands between the conditions.
bool isPlainLogic(const PreparedFilter& f) {
    return static_cast<std::size_t>(std::count(f.logic.begin(), f.logic.end(), '1')) ==
               f.slots.size() &&
           f.logic.find_first_not_of("()*+ 1") == std::string::npos;
}

void chainSteps(PreparedFilter& f) {
    f.chained = isPlainLogic(f);
    f.first = 0;
    if (!f.chained) return;
    std::string computed = f.logic;
    if (!logicHolds(computed.data())) f.first = kFail;  // no grammar: it fails for every record
    for (std::size_t i = 0; i < f.steps.size(); ++i) {
        f.steps[i].onTrue = following(f, f.slots[i] + 1, true);
        f.steps[i].onFalse = following(f, f.slots[i] + 1, false);
    }
}

/// Adds a piece and the connective behind it, 0 for the last one. False when it is too long.
bool addPiece(DbfBase* h, PreparedFilter& f, std::string_view text, char connective) {
    if (text.size() > kPieceLength) return false;
    const Piece piece = cutPiece(h, text);
    f.logic += piece.opening;
    f.slots.push_back(f.logic.size());
    f.logic += '1';
    f.logic += piece.closing;
    if (connective != 0) f.logic += connectiveSign(connective);
    f.steps.push_back({prepareCondition(h, piece.condition), kPass, kFail});
    return true;
}

/// False when the text does not fit the work area: a piece, the connectives, or the arithmetic
/// text, whose length is known beforehand and which parse would refuse for every record.
bool prepareFilter(DbfBase* h, std::string_view text, PreparedFilter& f) {
    f.text = text;
    f.noBracketCheck = h->NoBracketCheck;
    std::size_t start = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (!isConnective(text[i])) continue;
        if (f.slots.size() == kConnectives) return false;
        if (!addPiece(h, f, text.substr(start, i - start), text[i])) return false;
        start = i + 1;
    }
    if (!addPiece(h, f, text.substr(start), 0)) return false;
    if (h->NoBracketCheck == 0 && surplus(text) != 0) return true;  // no record passes
    if (f.steps.size() == 1) {
        f.steps[0].condition = prepareCondition(h, text);
        f.first = 0;
        return true;
    }
    if (f.logic.size() > kParseLength) return false;
    chainSteps(f);
    return true;
}

bool computedHolds(DbfBase* h, const PreparedFilter& f) {
    char logic[kParseLength + 1];
    std::memcpy(logic, f.logic.c_str(), f.logic.size() + 1);
    for (std::size_t i = 0; i < f.steps.size(); ++i) {
        logic[f.slots[i]] = conditionHolds(h, f.steps[i].condition) ? '1' : '0';
    }
    return logicHolds(logic);
}

/// ValidRecord of the prepared text.
bool passes(DbfBase* h, const PreparedFilter& f) {
    if (h->NoBracketCheck != f.noBracketCheck) return ValidRecord(h, f.text.c_str()) != 0;
    if (isDeleted(h)) return false;
    if (!f.chained) return computedHolds(h, f);
    std::size_t step = f.first;
    while (step < f.steps.size()) {
        const Step& s = f.steps[step];
        step = conditionHolds(h, s.condition) ? s.onTrue : s.onFalse;
    }
    return step == kPass;
}

// --------------------------------------------------------------------------------------------
// Running it
// --------------------------------------------------------------------------------------------

/// Old and new filter text joined with "&"; null without memory.
Block<char> joinTexts(const char* old, const char* text) {
    const std::size_t before = old != nullptr ? std::strlen(old) + 1 : 0;
    const std::size_t length = std::strlen(text);
    Block<char> joined = allocate<char>(before + length + 1);
    if (!joined) return joined;
    if (before != 0) {
        std::memcpy(joined.get(), old, before - 1);
        joined.get()[before - 1] = '&';
    }
    std::memcpy(joined.get() + before, text, length + 1);
    return joined;
}

/// Tests every record of the view; false when the callback stopped. every stands for a filter that
/// takes each record.
bool selectRecords(DbfBase* h, const PreparedFilter* filter, StopCallback callback, u32 count,
                   u32* index, u32* selected) {
    for (u32 position = 0; position < count; ++position) {
        u32 record = 0;
        const bool inView = recordAt(h, position, &record);
        ReadRecord(h, position);  // what cannot be read is tested as the buffer then stands
        const bool passed = filter != nullptr ? passes(h, *filter) : !isDeleted(h);
        if (inView && passed) index[(*selected)++] = record;
        if (callback != nullptr && callback() != 0) return false;
    }
    return true;
}

void dropIndex(DbfBase* h) {
    std::free(h->FilterIndex);
    h->FilterIndex = nullptr;
    h->FilterCount = 0;
}

void dropSortOrder(DbfBase* h) {
    std::free(h->SortOrder);
    h->SortOrder = nullptr;
    h->SortOrderCount = 0;
}

/// Takes a new index, given back what it does not use.
void takeIndex(DbfBase* h, Block<u32> index, u32 count) {
    dropIndex(h);
    u32* const all = index.release();
    void* const used = std::realloc(all, std::max<std::size_t>(count, 1) * sizeof(u32));
    h->FilterIndex = used != nullptr ? static_cast<u32*>(used) : all;
    h->FilterCount = count;
}

/// Applies a prepared filter, null for the one that takes every record, and a new FilterText,
/// unless that is null. False, with nothing changed, without memory.
bool applyFilter(DbfBase* h, const PreparedFilter* filter, Block<char> text,
                 StopCallback callback) {
    const u32 count = reccount(h);
    Block<u32> index = allocate<u32>(std::size_t{count} + 1);
    const Block<FilterWork> work = allocate<FilterWork>(1);
    if (!index || !work) return false;
    if (text) {
        std::free(h->FilterText);
        h->FilterText = text.release();
    }
    dropSortOrder(h);
    std::memset(work.get(), 0, sizeof *work);
    const Restore state(h->FilterState, work.get());
    u32 selected = 0;
    if (selectRecords(h, filter, callback, count, index.get(), &selected)) {
        takeIndex(h, std::move(index), selected);
    } else {
        dropIndex(h);
    }
    return true;
}

}  // namespace

DbfBase* set_filter(DbfBase* h, const char* text, StopCallback callback) {
    if (h == nullptr) return nullptr;
    if (takesEvery(text)) return applyFilter(h, nullptr, nullptr, callback) ? h : nullptr;
    const char* const applied = text != nullptr ? text : h->FilterText;
    if (applied == nullptr) return nullptr;
    try {
        PreparedFilter filter;
        if (!prepareFilter(h, applied, filter)) return nullptr;
        Block<char> joined;
        if (text != nullptr) {
            joined = joinTexts(h->FilterText, text);
            if (!joined) return nullptr;
        }
        return applyFilter(h, &filter, std::move(joined), callback) ? h : nullptr;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

int ValidRecord(DbfBase* h, const char* text) {
    if (text == nullptr || isDeleted(h)) return 0;
    if (takesEvery(text)) return 1;
    if (h->FilterState == nullptr) return 0;
    FilterWork& work = *h->FilterState;
    work.LogicLength = 0;
    const int pieces = analizator(h, text);
    if (pieces == 0) return 0;
    if (pieces == 1) return conditionHolds(h, text) ? 1 : 0;
    u32 start = 0;
    for (int k = 0; k < pieces; ++k) {
        const u32 cut = work.Cuts[k];
        const u32 length = cut - start;
        if (length > kPieceLength) return 0;
        std::memcpy(work.PieceText, text + start, length);
        work.PieceText[length] = 0;
        eval(h, text[cut]);
        start = cut + 1;
    }
    return logicHolds(work.LogicText) ? 1 : 0;
}

int analizator(DbfBase* h, const char* text) {
    if (h->FilterState == nullptr) return 0;
    u32* const cuts = h->FilterState->Cuts;
    u32 found = 0;
    i64 depth = 0;
    std::size_t i = 0;
    for (; text[i] != 0; ++i) {
        if (text[i] == '(') ++depth;
        if (text[i] == ')') --depth;
        if (!isConnective(text[i])) continue;
        if (found == kConnectives) return 0;  // set_filter takes no such text
        cuts[found++] = static_cast<u32>(i);
    }
    cuts[found] = static_cast<u32>(i);
    return depth != 0 && h->NoBracketCheck == 0 ? 0 : static_cast<int>(found + 1);
}

void eval(DbfBase* h, char connective) {
    if (h->FilterState == nullptr) return;
    FilterWork& work = *h->FilterState;
    const Piece piece = cutPiece(h, work.PieceText);
    putLogic(work, piece.opening);
    putLogic(work, conditionHolds(h, piece.condition) ? "1" : "0");
    putLogic(work, piece.closing);
    const char sign = connectiveSign(connective);
    if (sign != 0) putLogic(work, {&sign, 1});
}

void ClearFilter(DbfBase* h) {
    ClearSort(h);
    dropIndex(h);
}

void ClearAllFilter(DbfBase* h) {
    ClearFilter(h);
    std::free(h->FilterText);
    h->FilterText = nullptr;
}

void* ExternalFilter(DbfBase* /*h*/, u32 count) {
    return std::malloc(std::max<std::size_t>(count, 1) * 8);
}

}  // namespace mira
