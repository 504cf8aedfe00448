// Bus messages and controller writes in the order they happened.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace catra_test {

// From construction on: messages rendered as BusRecorder renders them, and
// each write to the controller device as "write <bytes>" with NULs shown as \0.
class Trace {
public:
    Trace();
    ~Trace();
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;

    std::vector<std::string> lines();

private:
    // REQUIRES: mutex_ held.
    void take_writes();

    std::mutex mutex_;
    std::size_t seen_;
    std::vector<std::string> lines_;
    int id_ = 0;
};

}  // namespace catra_test
