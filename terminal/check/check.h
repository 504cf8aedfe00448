// catra-terminal --check: scenarios that pass or fail. Each scenario is a
// script with expectations, run in a fresh terminal of its own (a child
// process: the plug-in loads once per process), with its own database in
// memory and its own simulated controller; the child's result comes back as
// a structure (scenario/session_result.h).
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "lines/messages.h"

namespace terminal {

struct CheckOptions {
    std::string program;  // catra-terminal itself, run once per scenario
    std::string plugin;
    std::string config;  // empty: each scenario's own (scenario/scenario_file.h)
    std::vector<std::string> scenarios;
    int jobs = 1;
    std::string junit;  // empty: no report file
};

// Checks every scenario, printing one line per scenario on `out` as it ends
// (with the reasons of a failure below it) and a summary. Returns the exit
// status: 0 when all passed, 1 otherwise.
int run_checks(const CheckOptions& options, std::ostream& out, const lines::Messages& messages);

}  // namespace terminal
