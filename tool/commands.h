// The table of commands.
#pragma once

#include "command/command.h"

namespace mira::tool {

/// Adds all of them, in the order in which help lists them.
void addCommands(CLI::App& program, Job& job);

}  // namespace mira::tool
