// Captures what the process writes to standard error (descriptor 2), for
// example the perror lines of the code under test, while the object lives.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace catra_test {

class StderrCapture {
public:
    // Redirects descriptor 2 into the capture; throws std::system_error when
    // the system refuses.
    StderrCapture();
    // Puts descriptor 2 back and copies what was captured to it, so that a
    // failing test's output still shows it.
    ~StderrCapture();
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    // Everything written to standard error so far.
    std::string text() const;
    // Waits until the captured text contains `needle`; false on time-out.
    bool wait_for(const std::string& needle, std::chrono::milliseconds timeout) const;

private:
    void collect();
    // Appends what the pipe holds now; false once the stream has ended.
    // Called with mutex_ held.
    bool take_available() const;

    int saved_stderr_ = -1;
    int read_end_ = -1;
    std::thread reader_;
    mutable std::mutex mutex_;
    mutable std::condition_variable grown_;
    mutable std::string text_;
    mutable bool ended_ = false;
};

}  // namespace catra_test
