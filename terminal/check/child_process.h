// Running a program as a child process and collecting what it printed.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace terminal {

struct ChildResult {
    int exit_code = -1;  // -1 when it was killed or ended by a signal
    bool timed_out = false;
    std::string out;
    std::string err;
};

// Runs arguments[0] with the rest as its arguments, nothing on its standard
// input and its output and error streams captured, for at most `bound` (then
// it is killed). Throws std::system_error when it cannot be started.
ChildResult run_child(const std::vector<std::string>& arguments, std::chrono::milliseconds bound);

}  // namespace terminal
