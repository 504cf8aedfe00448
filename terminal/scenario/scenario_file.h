// The scenario file: a script of commands with expectations, which --check
// runs in a fresh terminal and --record writes. Its top is comments; one of
// them may name the configuration the scenario runs with, relative to the
// scenario's folder:
//
//   # config: ../examples/terminal.ini
//
// This unit alone writes and reads that line.
#pragma once

#include <fstream>
#include <string>
#include <vector>

#include "lines/line.h"

namespace terminal {

class ScenarioWriter {
public:
    // Creates (or empties) the file and writes the heading, a comment line
    // each, then the configuration line when `config` names one (a path from
    // here, written relative to the scenario's folder). Throws
    // std::runtime_error "PATH: cannot be written".
    ScenarioWriter(const std::string& path, const std::vector<std::string>& heading,
                   const std::string& config);

    // One line of the script, as one JSON object, flushed.
    void write(const lines::Json& line);

private:
    std::ofstream file_;
};

// The configuration a scenario names among the comments at its top, as a
// path from here; empty when it names none.
std::string scenario_config(const std::string& scenario);

}  // namespace terminal
