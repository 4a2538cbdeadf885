#include "guard.h"

#include <string>

#include "tables/page/utf8.h"

namespace mira::sql {

std::string asUtf8(std::string_view text) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string valid;
    while (true) {
        const std::size_t run = tables::validRun(text);
        valid += text.substr(0, run);
        if (run == text.size()) return valid;
        const auto byte = static_cast<unsigned char>(text[run]);
        valid += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
        text.remove_prefix(run + 1);
    }
}

void setMessage(char** message, std::string_view text) {
    sqlite3_free(*message);
    *message = sqlite3_mprintf("%s", asUtf8(text).c_str());
}

}  // namespace mira::sql
