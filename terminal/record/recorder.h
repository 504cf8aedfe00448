// Writing a session down as a scenario that replays: each command that ran,
// in order, and after each action the expectations for what followed it: the
// messages the plug-in sent on the bus and the texts it wrote to the
// controller, without the values that differ from run to run (timestamps).
// What the plug-in did before the first action is expected at the top.
#pragma once

#include <mutex>
#include <string>

#include "scenario/scenario_file.h"
#include "script/runner.h"
#include "script/window.h"

namespace terminal {

class Recorder : public LineObserver {
public:
    // Creates (or empties) the file, naming the session's configuration file
    // (when there is one) for --check; throws std::runtime_error when it
    // cannot be written.
    Recorder(const std::string& path, Window& window, const std::string& config = "");

    // The plug-in's start-up is over: the expectations for what it did.
    void start_up_over();
    // An action is about to act: the expectations for what was printed since
    // the previous one.
    void before_action() override;
    // A command that ran, written as it was given.
    void ran(const Json& given) override;
    // The session ends: the expectations for what followed the last action.
    void finish();

private:
    // Writes the expectations for the lines printed since the last action
    // that were not written yet.
    void write_expectations();  // REQUIRES: mutex_ held

    Window& window_;
    std::mutex mutex_;
    ScenarioWriter file_;  // guarded by mutex_
    // Lines since the last action whose expectations are written (the
    // start-up's, written when it was over). Guarded by mutex_.
    std::size_t written_ = 0;
};

// The expectation a recorded session holds for an output line; null for the
// lines that are not expected (the terminal's own, the logs, the simulated
// controller's answers, dumps).
Json expectation_for(const Json& line);

}  // namespace terminal
