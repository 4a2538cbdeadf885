// Texts with string functions in them, the tokenizer and the repair of parentheses.
//
//   0  1  date format, function that is called by itself      then the text
#include "property.h"
#include "support/reference.h"

namespace test {
namespace {

constexpr struct {
    const char* opener;
    char* (*apply)(char*, DbfBase*);
} kFunctions[] = {{"TRIM(", Trim},           {"LTRIM(", LTrim},   {"RTRIM(", RTrim},
                  {"SUBSTR(", SubStr},       {"LEFT(", StrLeft},  {"RIGHT(", StrRight},
                  {"DTOS(", DtoS},           {"SPACE(", Space},   {"UPPER(", UpperMy},
                  {"REPLICATE(", Replicate}, {"LOWER(", LowerMy}, {"CAP(", CapitalizeMy}};

void checkTokens(const std::string& text) {
    const char* const delimiters = "+-*/() ";
    Exact copy(text);
    std::size_t at = 0;
    for (const char* token = mirastrtok(copy, delimiters);;
         token = mirastrtok(nullptr, delimiters)) {
        at = text.find_first_not_of(delimiters, at);
        CHECK_EQUAL(token == nullptr, at == std::string::npos);
        if (token == nullptr) return;
        const std::size_t end = std::min(text.find_first_of(delimiters, at), text.size());
        CHECK_EQUAL(text.substr(at, end - at), token);
        at = end;
    }
}

void check(Input& input) {
    static DbfBase h;  // only its options are looked at
    const u8 first = input.byte();
    h.DateFormat = first % 6;
    h.NoBracketCheck = first % 5 == 0;
    const auto& [opener, apply] = kFunctions[first / 6 % std::size(kFunctions)];
    const std::string text = input.rest();

    Exact whole(text);
    CHECK(StrEval(whole, &h) == whole);
    CHECK_EQUAL(whole.view(), evaluated(text, h.DateFormat));
    if (text.find_first_of("()") == text.npos) {  // else it would be a text of several calls
        Exact argument(text);
        CHECK(apply(argument, &h) == argument);
        CHECK_EQUAL(argument.view(), evaluated(opener + text, h.DateFormat));
    }
    Exact repaired(text);
    CheckBrackets(&h, repaired);
    CHECK_EQUAL(repaired.view(), balanced(&h, text));
    checkTokens(text);
}

}  // namespace

const Surface kStrings{"strings", check, 4096};

}  // namespace test
