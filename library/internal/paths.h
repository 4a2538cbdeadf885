// Taking paths apart.
#pragma once

#include <string_view>

#include "mira.h"

namespace mira {

inline constexpr u32 kBackupNameSize = 260;  // what MakeExt fills

struct PathParts {
    std::string_view dir;   ///< with its last slash
    std::string_view name;  ///< without extension
    std::string_view ext;   ///< with its dot
};
PathParts splitPath(std::string_view path);

}  // namespace mira
