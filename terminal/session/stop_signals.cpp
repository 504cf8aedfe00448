#include "session/stop_signals.h"

#include <unistd.h>

#include <csignal>
#include <thread>

namespace terminal {

StopSignals::StopSignals()
{
    sigemptyset(&set_);
    sigaddset(&set_, SIGINT);
    sigaddset(&set_, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set_, nullptr);
}

int StopSignals::wait()
{
    int signal = 0;
    while (sigwait(&set_, &signal) != 0) {
    }
    return signal;
}

void StopSignals::end_at_once_on_next(const lines::Messages& messages)
{
    std::thread([this, &messages] {
        const int signal = wait();
        messages.say("stopping at once");
        _exit(128 + signal);
    }).detach();
}

}  // namespace terminal
