#include "command/commands.h"
namespace mira::tool {
void addMemo(CLI::App&, Job&) {}
}  // namespace mira::tool
