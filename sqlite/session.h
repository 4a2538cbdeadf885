// What the tables of a connection share: the program that they work for, and what they know of each
// other's work on the files.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>

#include "mira.h"
#include "mira_sqlite.h"
#include "tables/page/refusal.h"

namespace mira::sql {

class Changes;

/// Another table of the same connection changes the file.
struct Locked : tables::Refusal {
    using Refusal::Refusal;
};

/// A table file, under however many names the connection knows it.
struct SharedFile {
    Changes* open = nullptr;             ///< who changes it
    u64 written = 0;                     ///< goes on with every row that is written or taken back
    u64 undone = 0;                      ///< and with whatever may have made it shorter
    std::optional<ino_t> backedUp = {};  ///< the file of which this connection has made a backup
};

struct Session {
    Host host{};
    std::map<std::string, SharedFile> files{};  ///< by the path that links lead to
};

}  // namespace mira::sql
