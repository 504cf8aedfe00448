// Runs catra-terminal as a child process and collects what it printed.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace catra_test {

using Json = nlohmann::ordered_json;

struct ProgramRun {
    int exit_code = -1;  // -1 when it did not end by itself in time (it is killed)
    std::string out;
    std::string err;

    // Standard output, one parsed JSON object per line; a line that is not
    // JSON is kept as a string, so that a comparison shows it.
    std::vector<Json> lines() const;
    // Standard error's lines.
    std::vector<std::string> error_lines() const;
};

// The path of the terminal program and of the plug-in under test.
std::string terminal_path();
std::string plugin_path();
// A file of the project's examples folder.
std::string example(const std::string& name);

// Runs the program with these arguments (after the program's path) and this
// standard input, waiting at most the bound; standard output is a pipe.
ProgramRun run_program(const std::vector<std::string>& arguments, const std::string& input = "");

// The same, with standard output on a pseudo-terminal, as a person at a
// terminal would see it.
ProgramRun run_program_on_terminal(const std::vector<std::string>& arguments);

// catra-terminal --json --config examples/terminal.ini --plugin PLUGIN
// --script examples/SCRIPT.
ProgramRun run_example(const std::string& script);

}  // namespace catra_test
