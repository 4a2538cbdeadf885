// The program calls what knows tables by its bare names.
#pragma once

namespace mira::tables {}
namespace mira::tool {
using namespace tables;
}
