// SIGINT and SIGTERM, the signals that stop a terminal that runs until it is
// stopped (with the live view).
#pragma once

#include <signal.h>

#include "lines/messages.h"

namespace terminal {

class StopSignals {
public:
    // Blocks both in every thread from now on, so that they arrive only
    // through wait(). REQUIRES: no other thread runs yet (each inherits the
    // mask of the thread that starts it).
    StopSignals();
    ~StopSignals() = default;
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    // Returns the signal that arrived.
    int wait();
    // From now on a second signal ends the process at once, saying so, with
    // the exit status of a process killed by it.
    void end_at_once_on_next(const lines::Messages& messages);

private:
    sigset_t set_{};
};

}  // namespace terminal
