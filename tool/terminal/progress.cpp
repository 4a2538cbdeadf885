#include "terminal/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <utility>

#include "terminal/message.h"

namespace mira::tool {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto kDelay = 200ms;  // work that is done sooner shows no bar
constexpr auto kInterval = 100ms;
constexpr int kBarWidth = 20;

ProgressMode progressMode = ProgressMode::OnTerminal;

/// The bar that all pieces of work share.
struct Bar {
    Bar() noexcept = default;  // before main() nothing may throw

    std::mutex mutex;
    std::atomic<u64> done = 0;
    u64 total = 0;
    int pieces = 0;
    std::string what;
    std::string unit;
    Clock::time_point started, drawn;
    bool visible = false;
};
Bar bar;

bool isWanted() {
    if (progressMode == ProgressMode::Never) return false;
    return progressMode == ProgressMode::Always || (!isQuiet() && isatty(STDERR_FILENO) != 0);
}

void writeAll(std::string_view text) {
    if (write(STDERR_FILENO, text.data(), text.size()) < 0) return;  // only a bar
}

std::string barText(Clock::time_point now) {
    const double seconds = std::chrono::duration<double>(now - bar.started).count();
    const auto done = static_cast<double>(std::min<u64>(bar.done, bar.total));
    const double part = bar.total != 0 ? done / static_cast<double>(bar.total) : 1.0;
    const double rate = seconds > 0 ? done / seconds : 0;
    const auto left = static_cast<u64>(part > 0 ? seconds / part - seconds + 0.5 : 0);
    const auto full = static_cast<int>(part * kBarWidth);
    const std::string name(cutToWidth(escaped(bar.what), 30));
    return fmt::format("\r{} [{}{}] {:3.0f} %  {:.0f} {}/s  {}:{:02} left\033[K", name,
                       std::string(static_cast<std::size_t>(full), '#'),
                       std::string(static_cast<std::size_t>(kBarWidth - full), ' '), part * 100,
                       rate, bar.unit, left / 60, left % 60);
}

void hide() {
    if (bar.visible) writeAll("\r\033[K");
    bar.visible = false;
}

}  // namespace

void setProgress(ProgressMode mode) { progressMode = mode; }

Progress::Progress(std::string_view what, u64 total, const char* unit) {
    const std::lock_guard lock(bar.mutex);
    if (bar.pieces++ == 0 || bar.unit != unit) {
        bar.unit = unit;
        bar.done = 0;
        bar.total = 0;
        bar.started = bar.drawn = Clock::now();
    }
    bar.what = what;
    bar.total += total;
}

Progress::~Progress() {
    const std::lock_guard lock(bar.mutex);
    bar.done += pending_;
    if (--bar.pieces != 0) return;
    // What was asked for is shown, however short the work.
    if (progressMode == ProgressMode::Always && !bar.visible) {
        writeAll(barText(Clock::now()));
        bar.visible = true;
    }
    hide();
}

void Progress::show() {
    bar.done += std::exchange(pending_, 0);
    if (!isWanted()) return;
    const std::lock_guard lock(bar.mutex);
    const Clock::time_point now = Clock::now();
    const bool always = progressMode == ProgressMode::Always;
    if (now - bar.drawn < kInterval || (!always && now - bar.started < kDelay)) return;
    bar.drawn = now;
    bar.visible = true;
    writeAll(barText(now));
}

void hideProgress() {
    const std::lock_guard lock(bar.mutex);
    hide();
}

}  // namespace mira::tool
