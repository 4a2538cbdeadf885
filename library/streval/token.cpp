// The tokenizer. Its place in the text is kept per thread.
#include <bitset>

#include "mira.h"

namespace mira {
namespace {

thread_local char* nextoken = nullptr;

}  // namespace

char* mirastrtok(char* text, const char* delimiters) {
    std::bitset<256> ends;
    for (const char* d = delimiters; *d != 0; ++d) ends.set(static_cast<u8>(*d));
    char* token = text != nullptr ? text : nextoken;
    if (token == nullptr) return nullptr;
    while (*token != 0 && ends.test(static_cast<u8>(*token))) ++token;
    char* end = token;
    while (*end != 0 && !ends.test(static_cast<u8>(*end))) ++end;
    nextoken = end;
    if (*end != 0) {
        *end = 0;
        ++nextoken;
    }
    return end != token ? token : nullptr;
}

}  // namespace mira
