#include "simulator/posix.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace simulator {

std::system_error system_failure(const std::string& what)
{
    return std::system_error(errno, std::generic_category(), what);
}

WakePipe::WakePipe()
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
        throw system_failure("pipe2");
    read_ = ends[0];
    write_ = ends[1];
}

WakePipe::~WakePipe()
{
    ::close(read_);
    ::close(write_);
}

void WakePipe::wake()
{
    // A full pipe is already readable: the wake-up is there.
    const char wake = 'x';
    while (::write(write_, &wake, 1) < 0 && errno == EINTR) {
    }
}

void WakePipe::drain()
{
    char drained[64];
    while (::read(read_, drained, sizeof drained) > 0) {
    }
}

}  // namespace simulator
