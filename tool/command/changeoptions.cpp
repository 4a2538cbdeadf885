#include "command/changeoptions.h"

#include "tables.h"
#include "tables/change/backup.h"

namespace mira::tool {

void addBackupOptions(CLI::App& command, ChangeOptions& options) {
    auto* const none =
        command.add_flag("--no-backup", options.noBackup, "Make no backup copies (.bak, .tbk)");
    command.add_option("--backups", options.backups, "How many backups to keep, this one included")
        ->type_name("N")
        ->check(CLI::Range(u32{1}, kBackupsMost).description(""))
        ->excludes(none);
}

void addChangeOptions(CLI::App& command, ChangeOptions& options) {
    addBackupOptions(command, options);
    command.add_flag("--dry-run", options.dryRun, "Only tell what would be done");
}

void addReindexOption(CLI::App& command, ChangeOptions& options) {
    command.add_flag("--reindex", options.reindex, "Rebuild the .cdx file beside the table, too");
}

void addForceOption(CLI::App& command, ChangeOptions& options) {
    command.add_flag("--force", options.force, "Also beside a .shp file");
}

}  // namespace mira::tool
