// The few pieces of POSIX plumbing that the simulator's parts share.
#pragma once

#include <string>
#include <system_error>

namespace simulator {

// The failure of the system call just made: errno and `what` failed.
std::system_error system_failure(const std::string& what);

// A self-pipe that wakes a thread waiting in poll(): the waiter watches fd()
// for POLLIN; any thread may call wake(), as often as it likes.
class WakePipe {
public:
    // Throws std::system_error when the system refuses a pipe.
    WakePipe();
    ~WakePipe();
    WakePipe(const WakePipe&) = delete;
    WakePipe& operator=(const WakePipe&) = delete;

    // Readable from the first wake() on, until drained.
    int fd() const { return read_; }
    void wake();
    // Reads every wake-up that is waiting, so that fd() waits again.
    void drain();

private:
    int read_ = -1;
    int write_ = -1;
};

}  // namespace simulator
