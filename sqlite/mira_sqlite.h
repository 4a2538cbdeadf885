// Tables as virtual tables of SQLite, and the function that attaches a folder of them:
//
//   CREATE VIRTUAL TABLE temp.stock USING mira('samples/stock.dbf', code_page=IBM866, ...);
//   SELECT mira_attach('samples');
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "api.h"

namespace mira::tables {
struct Table;
}

namespace mira::sql {

/// What a sentence is about: something odd that changes no value; a value that came out other than
/// it is stored, or not at all; a change that is or will be undone, or that recovery has to finish,
/// although SQLite has been told that all is well.
enum class Notice : unsigned char { Remark, Loss, Failure };

/// Into SQLite's error log.
void logNotice(Notice notice, const std::string& sentence);

/// How far a scan of a table is.
struct ScanState {
    const void* scan;             ///< which of them
    const std::string& path;      ///< of the table
    std::uint64_t done, records;  ///< equal at its end
};

/// The program that the module works for.
struct Host {
    /// Told what is odd about a table, what of its values could not be kept, and what a write
    /// leaves stale.
    std::function<void(Notice, const std::string&)> tell = logNotice;
    const char* pageOption = "code_page=NAME";  ///< how to say which code page a table is in
    const char* exactOption = "exact=1";        ///< and how to keep all digits of numbers
    bool readOnly = false;                      ///< refuses `writable=1`
    bool backups = true;                        ///< made by the first write of a connection
    unsigned backupCopies = 3;                  ///< how many are kept
    bool outerJoins = true;                     ///< statements may hold some
    bool rowLists = false;                      ///< and some with (A, B) IN (...)
    /// Told of every table, with the name of its schema in front: "temp.stock".
    std::function<void(const std::string& name, const tables::Table&)> opened{};
    /// Told now and then while a table is scanned; what it throws interrupts the statement.
    std::function<void(const ScanState&)> scanned{};
};

/// Makes the module `mira` and the function `mira_attach` known to a connection. An SQLite result.
int registerMira(sqlite3* connection, const Host& host = {});

}  // namespace mira::sql
