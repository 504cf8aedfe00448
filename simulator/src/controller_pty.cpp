#include "simulator/controller_pty.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include "simulator/posix.h"

namespace simulator {

namespace {

void close_quietly(int& fd)
{
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

// poll, unlike FIONREAD, first moves what the other side just wrote into
// this side's input, and honours the reader's line settings.
bool readable(int fd)
{
    if (fd < 0)
        return false;
    pollfd watched{fd, POLLIN, 0};
    return ::poll(&watched, 1, 0) > 0 && (watched.revents & POLLIN) != 0;
}

}  // namespace

ControllerPty::ControllerPty() : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
{
    if (master_ < 0)
        throw system_failure("posix_openpt");
    try {
        if (::grantpt(master_) != 0)
            throw system_failure("grantpt");
        if (::unlockpt(master_) != 0)
            throw system_failure("unlockpt");
        char name[128];
        if (::ptsname_r(master_, name, sizeof name) != 0)
            throw system_failure("ptsname_r");
        slave_path_ = name;
        slave_ = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (slave_ < 0)
            throw system_failure("open " + slave_path_);
        termios mode{};
        if (::tcgetattr(slave_, &mode) != 0)
            throw system_failure("tcgetattr");
        ::cfmakeraw(&mode);
        if (::tcsetattr(slave_, TCSANOW, &mode) != 0)
            throw system_failure("tcsetattr");
    } catch (...) {
        close_quietly(slave_);
        close_quietly(master_);
        throw;
    }
}

ControllerPty::~ControllerPty()
{
    hang_up();
}

void ControllerPty::write_event(char letter)
{
    if (master_ < 0)
        throw std::logic_error("write_event on a hung-up controller line");
    const char event[2] = {letter, '\0'};
    ssize_t written = -1;
    do {
        written = ::write(master_, event, sizeof event);
    } while (written < 0 && errno == EINTR);
    if (written < 0)
        throw system_failure("write_event");
    if (written != static_cast<ssize_t>(sizeof event))
        throw std::system_error(EIO, std::generic_category(), "write_event: short write");
}

bool ControllerPty::receive_available()
{
    char buffer[4096];
    const ssize_t got = ::read(master_, buffer, sizeof buffer);
    if (got <= 0)
        return false;
    pending_.append(buffer, static_cast<std::size_t>(got));
    return true;
}

bool ControllerPty::receive_more(std::chrono::steady_clock::time_point deadline)
{
    using namespace std::chrono;
    while (master_ >= 0) {
        const auto left = duration_cast<milliseconds>(deadline - steady_clock::now());
        pollfd watched{master_, POLLIN, 0};
        const int ready =
            ::poll(&watched, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (ready == 0)
            return false;
        if (watched.revents & POLLIN) {
            if (receive_available())
                return true;
        }
        // Readable without data, or an error or hang-up condition: the line
        // gives nothing more.
        return false;
    }
    return false;
}

std::optional<std::string> ControllerPty::read_command(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto end = pending_.find('\0');
        if (end != std::string::npos) {
            std::string command = pending_.substr(0, end);
            pending_.erase(0, end + 1);
            return command;
        }
        if (!receive_more(deadline))
            return std::nullopt;
    }
}

bool ControllerPty::commands_waiting() const
{
    return readable(master_);
}

bool ControllerPty::unread_by_other_side() const
{
    return readable(slave_);
}

void ControllerPty::hang_up()
{
    close_quietly(master_);
    close_quietly(slave_);
}

}  // namespace simulator
