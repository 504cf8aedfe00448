// The command line of catra-terminal.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace terminal {

struct Options {
    std::string config;              // INI file; empty: no configuration
    std::string plugin;              // the plug-in library to load
    std::string db = ":memory:";     // SQLite database file
    std::string script;              // commands; empty: standard input
    bool json = false;               // JSON lines even on a terminal
    std::string record;              // scenario file to write; empty: none
    std::vector<std::string> check;  // scenarios to check; empty: run the terminal
    int jobs = 1;                    // scenarios checked at once
    std::string junit;               // JUnit report of the check; empty: none
    std::string http;                // [ADDR:]PORT of the live view; empty: none
    std::string http_token;          // the live view's secret off loopback; empty: a new one
    std::string result;              // JSON file for the session's result; empty: none
};

// Fills `options` from the command line of `program`. Returns the exit code
// when the program should end at once (after --help or --version, or on a bad
// command line, which it reports on standard error).
std::optional<int> parse_options(const std::string& program, int argc, char** argv,
                                 Options& options);

}  // namespace terminal
