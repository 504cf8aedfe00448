#include "relay.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace catra_simulator {

namespace {

using Clock = std::chrono::steady_clock;
using simulator::system_failure;

// Whatever is readable now, appended to `bytes`; false when the other side
// hung up or the read failed (errno tells; 0 for the end of the line).
bool read_available(int fd, std::string& bytes)
{
    char buffer[256];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got > 0) {
            bytes.append(buffer, static_cast<std::size_t>(got));
            continue;
        }
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return true;
        if (got == 0)
            errno = 0;
        return false;
    }
}

}  // namespace

Relay::Relay(Line& outside, const simulator::ControllerPty& turnstile,
             std::chrono::milliseconds byte_gap,
             std::function<void(const std::string& reason)> failed)
    : outside_(outside),
      byte_gap_(byte_gap),
      failed_(std::move(failed)),
      turnstile_side_(
          ::open(turnstile.slave_path().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC))
{
    if (turnstile_side_ < 0)
        throw system_failure("cannot open " + turnstile.slave_path());
}

Relay::~Relay()
{
    stop();
    ::close(turnstile_side_);
}

void Relay::start()
{
    if (!thread_.joinable())
        thread_ = std::thread([this] { run(); });
}

void Relay::stop()
{
    stopping_.wake();
    if (thread_.joinable())
        thread_.join();
}

void Relay::run()
{
    try {
        for (;;) {
            pollfd watched[3] = {{outside_.fd(), POLLIN, 0},
                                 {turnstile_side_, POLLIN, 0},
                                 {stopping_.fd(), POLLIN, 0}};
            if (::poll(watched, 3, -1) < 0) {
                if (errno == EINTR)
                    continue;
                throw system_failure("poll");
            }
            if (watched[2].revents != 0)
                return;
            std::string commands;
            if (watched[0].revents != 0 && !read_available(outside_.fd(), commands)) {
                if (errno == 0)
                    throw std::runtime_error("the line was closed");
                throw system_failure("cannot read the line");
            }
            if (!write_all(turnstile_side_, commands.data(), commands.size()))
                return;
            std::string events;
            if (watched[1].revents != 0 && !read_available(turnstile_side_, events))
                throw system_failure("cannot read the turnstile's line");
            if (!send_to_terminal(events))
                return;
        }
    } catch (const std::exception& e) {
        if (failed_)
            failed_(e.what());
    }
}

bool Relay::send_to_terminal(const std::string& bytes)
{
    if (byte_gap_.count() == 0)
        return write_all(outside_.fd(), bytes.data(), bytes.size());
    for (const char& byte : bytes) {
        if (!wait(stopping_.fd(), POLLIN, byte_gap_))
            return false;
        const auto limit = Clock::now() + kReadWait;
        while (outside_.unread_by_terminal() && Clock::now() < limit) {
            if (!wait(stopping_.fd(), POLLIN, std::chrono::milliseconds(1)))
                return false;
        }
        if (!write_all(outside_.fd(), &byte, 1))
            return false;
    }
    return true;
}

bool Relay::write_all(int fd, const char* bytes, std::size_t size)
{
    std::size_t done = 0;
    while (done < size) {
        const ssize_t written = ::write(fd, bytes + done, size - done);
        if (written >= 0) {
            done += static_cast<std::size_t>(written);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (!wait(fd, POLLOUT, std::chrono::milliseconds(-1)))
                return false;
        } else if (errno != EINTR) {
            throw system_failure("cannot write the line");
        }
    }
    return true;
}

bool Relay::wait(int fd, short events, std::chrono::milliseconds timeout)
{
    // Waiting on the wake pipe alone is a pause that stop() cuts short.
    const bool pause = fd == stopping_.fd();
    pollfd watched[2] = {{stopping_.fd(), POLLIN, 0}, {fd, events, 0}};
    for (;;) {
        const int ready = ::poll(watched, pause ? 1 : 2,
                                 timeout.count() < 0 ? -1 : static_cast<int>(timeout.count()));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0)
            throw system_failure("poll");
        if (watched[0].revents != 0)
            return false;
        return true;
    }
}

}  // namespace catra_simulator
