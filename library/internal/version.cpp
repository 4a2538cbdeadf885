// The version of the library, and two leftovers of its first users' tests.
#include <algorithm>
#include <cstdio>

#include "mira.h"

namespace mira {

namespace {

constexpr std::intptr_t kVersionNumber = 291;
constexpr std::intptr_t kVersionWidth = 256;
constexpr char kBuildDate[] = __DATE__ " " __TIME__;

constexpr std::size_t kMessageSize = 255;

int messageLength(int printed) {
    return std::clamp(printed, 0, static_cast<int>(kMessageSize) - 1);
}

}  // namespace

std::intptr_t GetVerMIRAlib(int selector) {
    switch (selector) {
        case 0:
            return kVersionNumber;
        case 1:
            return reinterpret_cast<std::intptr_t>(kBuildDate);
        case 2:
            return sizeof(DbfBase);
        case 3:
            return kVersionWidth;
        default:
            return 0;
    }
}

int Msg(int value) {
    char text[kMessageSize];
    return messageLength(std::snprintf(text, sizeof text, "value=%d", value));
}

int MsgS(const char* value) {
    char text[kMessageSize];
    const char* shown = value != nullptr ? value : "";
    return messageLength(std::snprintf(text, sizeof text, "value=%s", shown));
}

}  // namespace mira
