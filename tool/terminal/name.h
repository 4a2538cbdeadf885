// The name that the program is called by. Where "mira" is another program's, a distribution
// installs this one under another name, and what it says of itself has to work there as it stands.
#pragma once

#include <string>
#include <string_view>

namespace mira::tool {

/// From the program's first argument, which may be null; anything but a plain word leaves "mira".
void setProgramName(const char* called);
const std::string& programName();

/// A text of the program's own, such as a help or a script, with its name for each word "mira".
std::string inOwnName(std::string_view text);
/// A sentence with names and values of others in it, where only commands in backquotes are the
/// program's own: `mira pack`.
std::string withOwnCommands(std::string_view sentence);

}  // namespace mira::tool
