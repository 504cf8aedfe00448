#include "line.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <stdexcept>
#include <system_error>

#include "simulator/posix.h"

namespace catra_simulator {

namespace {

const std::map<int, speed_t>& speeds()
{
    static const std::map<int, speed_t> table = {
        {1200, B1200},     {2400, B2400},     {4800, B4800},    {9600, B9600},
        {19200, B19200},   {38400, B38400},   {57600, B57600},  {115200, B115200},
        {230400, B230400}, {460800, B460800}, {921600, B921600}};
    return table;
}

using simulator::system_failure;

void set_non_blocking(int fd)
{
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0)
        throw system_failure("fcntl");
}

}  // namespace

bool supported_baud(int baud)
{
    return speeds().count(baud) != 0;
}

Line Line::serial(const std::string& path, int baud)
{
    Line line;
    line.terminal_path_ = path;
    // Non-blocking from the start: opening a serial port must not wait for
    // its carrier.
    line.fd_ = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (line.fd_ < 0)
        throw system_failure("cannot open " + path);
    if (::isatty(line.fd_) == 0)
        throw std::invalid_argument(path + " is not a serial device");
    termios mode{};
    if (::tcgetattr(line.fd_, &mode) != 0)
        throw system_failure("cannot read the line settings of " + path);
    ::cfmakeraw(&mode);
    mode.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | CSTOPB | CRTSCTS);
    mode.c_cflag |= CS8 | CLOCAL | CREAD;
    mode.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
    mode.c_cc[VMIN] = 1;
    mode.c_cc[VTIME] = 0;
    const auto speed = speeds().find(baud);
    if (speed == speeds().end())
        throw std::invalid_argument("no serial speed " + std::to_string(baud));
    if (::cfsetispeed(&mode, speed->second) != 0 || ::cfsetospeed(&mode, speed->second) != 0 ||
        ::tcsetattr(line.fd_, TCSANOW, &mode) != 0)
        throw system_failure("cannot set the line settings of " + path);
    return line;
}

Line Line::pseudo_terminal()
{
    Line line;
    line.pty_ = std::make_unique<simulator::ControllerPty>();
    line.terminal_path_ = line.pty_->slave_path();
    line.fd_ = ::fcntl(line.pty_->master_fd(), F_DUPFD_CLOEXEC, 0);
    if (line.fd_ < 0)
        throw system_failure("fcntl");
    set_non_blocking(line.fd_);
    return line;
}

Line::~Line()
{
    if (fd_ >= 0)
        ::close(fd_);
}

Line::Line(Line&& other) noexcept
    : fd_(other.fd_), terminal_path_(std::move(other.terminal_path_)), pty_(std::move(other.pty_))
{
    other.fd_ = -1;
}

bool Line::unread_by_terminal() const
{
    return pty_ != nullptr && pty_->unread_by_other_side();
}

}  // namespace catra_simulator
