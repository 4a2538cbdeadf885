#include "status.h"

#include <csignal>
#include <initializer_list>

namespace mira::tool {
namespace {

volatile std::sig_atomic_t stopSignal = 0;

void note(int signal) { stopSignal = signal; }

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
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
}

bool stopped() { return stopSignal != 0; }
int stopStatus() { return 128 + stopSignal; }

}  // namespace mira::tool
