// No exception leaves the module: what is thrown becomes an SQLite result and a message.
#pragma once

#include <exception>
#include <new>
#include <string>
#include <string_view>

#include "api.h"
#include "session.h"
#include "tables/change/disk.h"

namespace mira::sql {

/// The text with every byte that is no UTF-8 as "\xFF". File names and values may hold any bytes;
/// programs that are handed a message take nothing but UTF-8.
std::string asUtf8(std::string_view text);
/// Sets a message that SQLite owns, and releases the one before.
void setMessage(char** message, std::string_view text);

/// The result of work(), or that of what it threw.
template <typename Work>
int guarded(char** message, Work work) noexcept {
    try {
        try {
            return work();
        } catch (const std::bad_alloc&) {
            return SQLITE_NOMEM;
        } catch (const tables::Busy& busy) {
            setMessage(message, busy.what());
            return SQLITE_BUSY;
        } catch (const Locked& locked) {
            setMessage(message, locked.what());
            return SQLITE_LOCKED;
        } catch (const tables::DiskError& error) {  // SQLite then rolls the transaction back
            setMessage(message, error.what());
            return SQLITE_IOERR;
        } catch (const std::exception& error) {
            setMessage(message, error.what());
            return SQLITE_ERROR;
        }
    } catch (...) {
        return SQLITE_NOMEM;
    }
}

}  // namespace mira::sql
