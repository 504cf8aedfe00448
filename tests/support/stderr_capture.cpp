#include "stderr_capture.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

namespace catra_test {

namespace {

std::system_error system_failure(const char* what)
{
    return std::system_error(errno, std::generic_category(), what);
}

}  // namespace

// The pipe is emptied by a reader thread, so that writers never block on a
// full pipe, and also by text() itself, so that text() holds everything that
// was written before it was called.
StderrCapture::StderrCapture()
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw system_failure("pipe2");
    ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
    std::fflush(stderr);
    saved_stderr_ = ::fcntl(2, F_DUPFD_CLOEXEC, 3);
    if (saved_stderr_ < 0 || ::dup2(ends[1], 2) < 0) {
        const auto failure = system_failure("redirecting standard error");
        ::close(ends[0]);
        ::close(ends[1]);
        if (saved_stderr_ >= 0)
            ::close(saved_stderr_);
        throw failure;
    }
    // Descriptor 2 is now the only write end: once it is put back, the reader
    // sees the end of the stream.
    ::close(ends[1]);
    read_end_ = ends[0];
    reader_ = std::thread([this] { collect(); });
}

StderrCapture::~StderrCapture()
{
    std::fflush(stderr);
    ::dup2(saved_stderr_, 2);
    reader_.join();
    ::close(read_end_);
    ::close(saved_stderr_);
    const std::string captured = text();
    std::size_t done = 0;
    while (done < captured.size()) {
        const ssize_t written = ::write(2, captured.data() + done, captured.size() - done);
        if (written <= 0)
            break;
        done += static_cast<std::size_t>(written);
    }
}

bool StderrCapture::take_available() const
{
    char buffer[4096];
    while (!ended_) {
        const ssize_t got = ::read(read_end_, buffer, sizeof buffer);
        if (got > 0) {
            text_.append(buffer, static_cast<std::size_t>(got));
        } else if (got < 0 && errno == EINTR) {
            continue;
        } else if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return true;
        } else {
            ended_ = true;
        }
    }
    return false;
}

void StderrCapture::collect()
{
    for (;;) {
        pollfd watched{read_end_, POLLIN, 0};
        if (::poll(&watched, 1, -1) < 0 && errno == EINTR)
            continue;
        bool open;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            open = take_available();
        }
        grown_.notify_all();
        if (!open)
            return;
    }
}

std::string StderrCapture::text() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    take_available();
    return text_;
}

bool StderrCapture::wait_for(const std::string& needle, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(mutex_);
    return grown_.wait_for(lock, timeout, [&] {
        take_available();
        return text_.find(needle) != std::string::npos;
    });
}

}  // namespace catra_test
