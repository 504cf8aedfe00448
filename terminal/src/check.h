// catra-terminal --check: scenarios that pass or fail. Each scenario is a
// script with expectations, run in a fresh terminal of its own (a child
// process: the plug-in loads once per process), with its own database in
// memory and its own simulated controller.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace terminal {

struct CheckOptions {
    std::string program;  // catra-terminal itself, run once per scenario
    std::string plugin;
    std::string config;  // empty: each scenario's "# config: PATH" line
    std::vector<std::string> scenarios;
    int jobs = 1;
    std::string junit;  // empty: no report file
};

// Checks every scenario, printing one line per scenario as it ends (with the
// reasons of a failure below it) and a summary. Returns the exit status: 0
// when all passed, 1 otherwise.
int run_checks(const CheckOptions& options, std::ostream& out);

// The configuration a scenario names on a "# config: PATH" line among the
// comments at its top, relative to the scenario's folder; empty when none.
std::string scenario_config(const std::string& scenario);

}  // namespace terminal
