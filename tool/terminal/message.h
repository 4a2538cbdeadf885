// What the user is told: on standard error, a line each, control characters escaped.
#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tables.h"
#include "tables/page/escape.h"
#include "tables/page/text.h"

namespace mira::tool {

/// With quiet, only errors are told.
void setQuiet(bool quiet);
bool isQuiet();

/// Errors: always told. Lines of different threads do not mix.
void tellError(std::string_view sentence);
/// Warnings, notes and counts: not when quiet.
void tell(std::string_view sentence);

/// While one lives, what its thread tells is gathered instead of told. One at a time per thread.
class GatheredMessages {
public:
    GatheredMessages();
    ~GatheredMessages();
    GatheredMessages(const GatheredMessages&) = delete;
    /// As told by tellGathered.
    std::vector<std::string> take();

private:
    std::vector<std::string> sentences_;
};
void tellGathered(const std::vector<std::string>& sentences);

template <typename... T>
void error(fmt::format_string<T...> text, T&&... values) {
    tellError(fmt::format(text, std::forward<T>(values)...));
}
template <typename... T>
void note(fmt::format_string<T...> text, T&&... values) {
    tell(fmt::format(text, std::forward<T>(values)...));
}

/// Columns that a text takes on a terminal.
int widthOf(std::string_view utf8);
/// The beginning of a text that takes at most width columns.
std::string_view cutToWidth(std::string_view utf8, int width);
/// Columns of the terminal of a file descriptor; 0 when it is none.
int terminalWidth(int descriptor);

}  // namespace mira::tool
