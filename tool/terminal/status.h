// How a command ends, and how it is stopped.
#pragma once

namespace mira::tool {

enum Status : int {
    kDone = 0,
    kFound = 1,   // done, but something was found, or some value could not be kept
    kFailed = 2,  // not done
};

/// The graver of two.
inline Status worse(Status a, Status b) { return a > b ? a : b; }

/// Ctrl-C, and requests to terminate, set a flag from now on, so that what is half done can be
/// taken back. A second Ctrl-C ends the program at once.
void watchSignals();
/// Whether such a signal has come. Long work asks after every record.
bool stopped();
/// The exit status then: 130 after Ctrl-C.
int stopStatus();
/// Thrown where work is left because of it; main turns it into the exit status.
struct Stopped {};
inline void leaveIfStopped() {
    if (stopped()) throw Stopped{};
}

/// While it lives a reader that closes the pipe makes writing fail; then it ends the program as
/// ever, once what is half done has been taken back.
class HoldPipeSignal {
public:
    HoldPipeSignal();
    ~HoldPipeSignal();
    HoldPipeSignal(const HoldPipeSignal&) = delete;
};

/// While it lives such signals wait, for work that must not be cut in half.
class HoldSignals {
public:
    HoldSignals();
    ~HoldSignals();
    HoldSignals(const HoldSignals&) = delete;
};

}  // namespace mira::tool
