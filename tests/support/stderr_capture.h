// Captures what the process writes to standard error (descriptor 2), for
// example the perror lines of the code under test, while the object lives.
#pragma once

#include <string>

namespace catra_test {

class StderrCapture {
public:
    // Points descriptor 2 at an anonymous file; throws std::system_error when
    // the system refuses.
    StderrCapture();
    // Puts descriptor 2 back and copies what was captured to it, so that a
    // failing test's output still shows it.
    ~StderrCapture();
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    // Everything written to standard error so far.
    std::string text() const;

private:
    int saved_stderr_ = -1;
    int file_ = -1;
};

}  // namespace catra_test
