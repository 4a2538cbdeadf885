// What the tests need besides support/.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <optional>
#include <utility>

#include "support/reference.h"
#include "support/tables.h"

namespace test {

using TempDir = Folder;

/// A text for the readers that may return null.
inline std::string str(const char* text) { return text == nullptr ? "(null)" : text; }

/// The bytes of a memo of the current record, if there is one.
inline std::optional<std::string> memoOf(DbfBase* h, int field = 0) {
    u32 length = 0;
    const std::unique_ptr<char, decltype(&std::free)> bytes(GetMemoBuf(h, field, &length),
                                                            std::free);
    if (bytes == nullptr) return std::nullopt;
    return std::string(bytes.get(), length);
}

/// While this lives, files can grow to a number of bytes and no further, as on a full disk.
struct FileSizeLimit {
    explicit FileSizeLimit(rlim_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &saved);
        const rlimit limit{bytes, saved.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &saved); }
    FileSizeLimit(const FileSizeLimit&) = delete;

    rlimit saved;
};

/// Whether bytes are those wanted; else where they part, and what stands there.
inline testing::AssertionResult same(std::string_view found, std::string_view wanted) {
    if (found == wanted) return testing::AssertionSuccess();
    const auto [first, other] =
        std::mismatch(found.begin(), found.end(), wanted.begin(), wanted.end());
    const auto at = static_cast<std::size_t>(first - found.begin());
    const auto line = std::count(found.begin(), first, '\n') + 1;
    const auto from = [&](std::string_view bytes) {
        return testing::PrintToString(std::string(bytes.substr(at, 80)));
    };
    return testing::AssertionFailure()
           << found.size() << " bytes, " << wanted.size() << " wanted; from byte " << at
           << " on, line " << line << ":\n"
           << from(found) << ", wanted\n"
           << from(wanted);
}

/// The date that a header written now, or at a time, carries: year, month, day. fullYear counts
/// from 1900.
inline std::string today(bool fullYear = false, std::time_t now = std::time(nullptr)) {
    std::tm local{};
    localtime_r(&now, &local);
    return {static_cast<char>(fullYear ? local.tm_year : local.tm_year % 100),
            static_cast<char>(local.tm_mon + 1), static_cast<char>(local.tm_mday)};
}

/// When the tests began.
inline const std::time_t begun = std::time(nullptr);

/// A table's bytes with today's date, or with that of a file which was written before midnight.
inline std::string dated(std::string bytes, std::string_view file, bool fullYear = false) {
    const std::string before = today(fullYear, begun);
    return bytes.replace(1, 3, file.substr(1, 3) == before ? before : today(fullYear));
}

}  // namespace test
