// The JUnit XML report of a check, for CI.
#pragma once

#include <string>
#include <vector>

namespace terminal {

// What became of one scenario of a check.
struct ScenarioOutcome {
    std::string scenario;  // its path, as given
    bool passed = false;
    int expectations = 0;
    int met = 0;
    double seconds = 0;
    std::vector<std::string> reasons;  // why it failed
    std::string printed;               // the terminal's output
    std::string errors;                // what it printed on its error stream
};

// The report as an XML document, a test suite of that name: one test case
// per scenario, named by its file and classed by its folder; a failure's
// message is its tally and first reason, its text every reason.
std::string junit_report(const std::string& suite, const std::vector<ScenarioOutcome>& outcomes,
                         double seconds);

// Text for an XML document (an attribute's value when `attribute`): markup
// characters escaped, control characters and bytes that are not UTF-8
// replaced.
std::string xml_text(const std::string& text, bool attribute = false);

}  // namespace terminal
