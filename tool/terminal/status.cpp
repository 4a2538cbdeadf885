#include "terminal/status.h"

#include <csignal>
#include <initializer_list>

namespace mira::tool {
namespace {

volatile std::sig_atomic_t stopSignal = 0;
constexpr auto kStopSignals = {SIGINT, SIGTERM, SIGHUP};

void note(int signal) { stopSignal = signal; }

void mask(int how, std::initializer_list<int> which) {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : which) sigaddset(&signals, signal);
    pthread_sigmask(how, &signals, nullptr);
}

}  // namespace

void watchSignals() {
    // A reader that closes the pipe ends the program at once, whatever the parent had set.
    std::signal(SIGPIPE, SIG_DFL);
    // Writing past a limit of file sizes is an error like a full disk.
    std::signal(SIGXFSZ, SIG_IGN);
    struct sigaction action {};
    action.sa_handler = note;
    sigemptyset(&action.sa_mask);
    action.sa_flags = static_cast<int>(SA_RESETHAND);  // and no restart: a blocked write returns
    for (const int signal : kStopSignals) sigaction(signal, &action, nullptr);
}

bool stopped() { return stopSignal != 0; }
int stopStatus() { return 128 + stopSignal; }

HoldSignals::HoldSignals() { mask(SIG_BLOCK, kStopSignals); }
HoldSignals::~HoldSignals() { mask(SIG_UNBLOCK, kStopSignals); }

HoldPipeSignal::HoldPipeSignal() { mask(SIG_BLOCK, {SIGPIPE}); }
HoldPipeSignal::~HoldPipeSignal() { mask(SIG_UNBLOCK, {SIGPIPE}); }

}  // namespace mira::tool
