// The options of commands that change tables.
#pragma once

#include <CLI/CLI.hpp>

#include "mira.h"

namespace mira::tool {

struct ChangeOptions {
    bool noBackup = false;
    u32 backups = 3;
    bool dryRun = false;
    bool force = false;
    bool reindex = false;
};

/// --no-backup and --backups.
void addBackupOptions(CLI::App& command, ChangeOptions& options);
/// These, and --dry-run.
void addChangeOptions(CLI::App& command, ChangeOptions& options);
/// --reindex, for commands that change what index files are made of.
void addReindexOption(CLI::App& command, ChangeOptions& options);
/// --force, for commands that change the number or order of records.
void addForceOption(CLI::App& command, ChangeOptions& options);

}  // namespace mira::tool
