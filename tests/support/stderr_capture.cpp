#include "stderr_capture.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

namespace catra_test {

StderrCapture::StderrCapture()
{
    std::fflush(stderr);
    file_ = ::memfd_create("stderr-capture", MFD_CLOEXEC);
    saved_stderr_ = ::dup(STDERR_FILENO);
    if (file_ < 0 || saved_stderr_ < 0 || ::dup2(file_, STDERR_FILENO) < 0)
        throw std::system_error(errno, std::generic_category(), "capturing standard error");
}

StderrCapture::~StderrCapture()
{
    std::fflush(stderr);
    ::dup2(saved_stderr_, STDERR_FILENO);
    ::close(saved_stderr_);
    const std::string captured = text();
    std::fwrite(captured.data(), 1, captured.size(), stderr);
    ::close(file_);
}

std::string StderrCapture::text() const
{
    std::fflush(stderr);
    std::string captured;
    char buffer[4096];
    ssize_t count = 0;
    while ((count = ::pread(file_, buffer, sizeof buffer, static_cast<off_t>(captured.size()))) > 0)
        captured.append(buffer, static_cast<std::size_t>(count));
    return captured;
}

}  // namespace catra_test
