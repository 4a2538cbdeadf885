// A bar on standard error for long work, with rate and time left. Work on several threads adds to
// the same bar.
#pragma once

#include <string_view>

#include "mira.h"

namespace mira::tool {

enum class ProgressMode : u8 { OnTerminal, Always, Never };
void setProgress(ProgressMode mode);

/// One piece of work; the bar is there while one lives. total in records, or what unit says. Work
/// of another unit takes the bar over.
class Progress {
public:
    Progress(std::string_view what, u64 total, const char* unit = "records");
    ~Progress();
    Progress(const Progress&) = delete;

    /// done records or bytes more.
    void add(u64 done) {
        pending_ += done;
        if (pending_ >= kStep) show();
    }

private:
    static constexpr u64 kStep = 1024;
    void show();

    u64 pending_ = 0;  // records that the bar does not know of
};

/// Takes the bar off the terminal, for a line of text; the next add draws it again.
void hideProgress();

}  // namespace mira::tool
