// Texts with string functions in them against the rule followed by recursion; then single
// functions, the tokenizer and the repair of parentheses on the same bytes.
//
//   0  1  date format      1  1  function      then the text
#include "support.h"

using namespace fuzz;

namespace {

constexpr std::size_t kLargest = 4096;

struct Function {
    std::string opener;
    char* (*apply)(char*, DbfBase*);
};
const Function kFunctions[] = {
    {"TRIM(", Trim},     {"LTRIM(", LTrim},         {"RTRIM(", RTrim},   {"SUBSTR(", SubStr},
    {"LEFT(", StrLeft},  {"RIGHT(", StrRight},      {"DTOS(", DtoS},     {"SPACE(", Space},
    {"UPPER(", UpperMy}, {"REPLICATE(", Replicate}, {"LOWER(", LowerMy}, {"CAP(", CapitalizeMy}};

/// A block of exactly the size, so that a sanitizer sees one byte too many.
using Text = std::unique_ptr<char[]>;
Text copyOf(const std::string& text) {
    Text copy(new char[text.size() + 1]);
    std::memcpy(copy.get(), text.c_str(), text.size() + 1);
    return copy;
}

std::string upper(std::string text) {
    for (char& c : text) c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 0x20) : c;
    return text;
}

std::string apply(const Function& f, DbfBase* h, const std::string& argument) {
    const Text copy = copyOf(argument);
    FUZZ_CHECK(f.apply(copy.get(), h) == copy.get());
    const std::string result = copy.get();
    FUZZ_CHECK(result.size() <= argument.size());
    return result;
}

std::string byRecursion(DbfBase* h, const std::string& text) {
    const std::string folded = upper(text);
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        const Function* called = nullptr;
        for (const Function& f : kFunctions) {
            if (folded.compare(i, f.opener.size(), f.opener) == 0) called = &f;
        }
        if (called == nullptr) {
            out += text[i++];
            continue;
        }
        const std::size_t start = i + called->opener.size();
        i = start;
        for (int depth = 1; i < text.size(); ++i) {
            depth += text[i] == '(' ? 1 : text[i] == ')' ? -1 : 0;
            if (depth == 0) break;
        }
        out += apply(*called, h, byRecursion(h, text.substr(start, i - start)));
        if (i < text.size()) ++i;
    }
    return out;
}

void checkTokens(const std::string& text) {
    const char* const delimiters = "+-*/() ";
    const Text copy = copyOf(text);
    std::size_t at = 0;
    for (char* token = mirastrtok(copy.get(), delimiters);;
         token = mirastrtok(nullptr, delimiters)) {
        at = text.find_first_not_of(delimiters, at);
        FUZZ_CHECK((token == nullptr) == (at == std::string::npos));
        if (token == nullptr) return;
        const std::size_t end = std::min(text.find_first_of(delimiters, at), text.size());
        FUZZ_CHECK(text.substr(at, end - at) == token);
        at = end;
    }
}

void checkBrackets(DbfBase* h, const std::string& text) {
    const Text copy = copyOf(text);
    CheckBrackets(h, copy.get());
    std::string kept = text;
    auto surplus =
        std::count(text.begin(), text.end(), '(') - std::count(text.begin(), text.end(), ')');
    for (; surplus > 0 && kept.front() == '('; --surplus) kept.erase(0, 1);
    for (; surplus < 0 && kept.back() == ')'; ++surplus) kept.pop_back();
    FUZZ_CHECK(kept == copy.get());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > kLargest) return 0;
    static DbfBase h;  // only its options are looked at
    Input input(data, size);
    h.DateFormat = static_cast<i32>(input.below(6));
    const Function& function = kFunctions[input.below(std::size(kFunctions))];
    const std::string text = input.rest().c_str();

    const Text evaluated = copyOf(text);
    FUZZ_CHECK(StrEval(evaluated.get(), &h) == evaluated.get());
    FUZZ_CHECK(byRecursion(&h, text) == evaluated.get());
    apply(function, &h, text);
    checkTokens(text);
    checkBrackets(&h, text);
    return 0;
}
