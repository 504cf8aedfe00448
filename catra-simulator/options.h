// The command line of catra-simulator.
#pragma once

#include <optional>
#include <string>

namespace catra_simulator {

struct Options {
    std::string device;  // serial device; empty: a new pseudo-terminal
    int baud = 9600;
    std::string link;  // symbolic link to the new pseudo-terminal; empty: none
    int byte_gap_ms = 0;
    bool json = false;  // JSON lines even on a terminal
};

// Fills `options` from the command line of `program`. Returns the exit code
// when the program should end at once (after --help or --version, or on a bad
// command line, which it reports on standard error).
std::optional<int> parse_options(const std::string& program, int argc, char** argv,
                                 Options& options);

}  // namespace catra_simulator
