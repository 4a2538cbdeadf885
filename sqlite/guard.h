// No exception leaves the module: what is thrown becomes an SQLite result and a message.
#pragma once

#include <exception>
#include <new>

#include "api.h"
#include "tables/change/disk.h"

namespace mira::sql {

/// Sets a message that SQLite owns, and releases the one before.
inline void setMessage(char** message, const char* text) {
    sqlite3_free(*message);
    *message = sqlite3_mprintf("%s", text);
}

/// The result of work(), or that of what it threw.
template <typename Work>
int guarded(char** message, Work work) noexcept {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        return SQLITE_NOMEM;
    } catch (const tables::Busy& busy) {
        setMessage(message, busy.what());
        return SQLITE_BUSY;
    } catch (const std::exception& error) {
        setMessage(message, error.what());
        return SQLITE_ERROR;
    }
}

}  // namespace mira::sql
