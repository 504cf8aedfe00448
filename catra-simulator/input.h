// What is typed (or piped) into catra-simulator: one command per line, of the
// two that act on the turnstile itself, a person's turn and the controller's
// letters; blank lines and lines starting with # are skipped. A line that is
// not such a command is reported with its number, and the next one runs.
#pragma once

#include <string>

#include "lines/messages.h"
#include "simulator/turnstile.h"

namespace catra_simulator {

class Input {
public:
    Input(int fd, simulator::Turnstile& turnstile, const lines::Messages& messages);

    // Reads what is there and runs each whole line; false at the end of the
    // input (the last line runs even without its newline).
    bool read_more();

private:
    void run_line(const std::string& line);

    const int fd_;
    simulator::Turnstile& turnstile_;
    const lines::Messages& messages_;
    std::string pending_;
    int number_ = 0;
};

}  // namespace catra_simulator
