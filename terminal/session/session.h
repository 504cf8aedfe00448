// One run of catra-terminal, step by step: the services prepared, the
// plug-in started, the commands run once its start-up is over, and the end,
// which lets what the commands started finish and gives the session's result.
// SIGINT or SIGTERM stops it at any step, within a second. Only main() ends
// the process.
#pragma once

#include <atomic>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bus/observers.h"
#include "lines/messages.h"
#include "lines/output.h"
#include "live/live_view.h"
#include "record/recorder.h"
#include "scenario/session_result.h"
#include "script/runner.h"
#include "script/window.h"
#include "session/options.h"
#include "session/stop_signals.h"
#include "simulator/controller_pty.h"
#include "simulator/turnstile.h"
#include "standin/plugin_host.h"

namespace terminal {

class Session {
public:
    // Blocks the stop signals. REQUIRES: no other thread runs yet.
    Session(const Options& options, const lines::Messages& messages);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Plays the steps below on a thread of their own until they end (with the
    // live view: until stopped), or until SIGINT or SIGTERM stops the
    // session; then the end, at once. Returns the exit status: 0 when the
    // session passed, 128 + the signal's number when it was stopped.
    int play();

private:
    struct SimulatedController;

    // Everything but the plug-in: configuration, database, output, live view,
    // simulated controller, script and recorder. False when one of them
    // cannot be had; the session then ends.
    bool prepare();
    // Loads and starts the plug-in, and waits until its start-up is over, so
    // that no command races it. False when its init failed: the failure is
    // printed after what the plug-in did before it, and the script's actions
    // are refused from then on.
    bool start_plugin();
    // Runs the commands: the script, or standard input (after a failed init,
    // only a script), and lets what they started finish. False when the
    // session goes on after them: with the live view, the lines posted to it
    // run until the session is stopped.
    bool run();
    // Gives the session's result: written to the --result file, or its tally
    // printed. Returns the exit status.
    int end();
    // The session stopped by that signal: what it cut short, in one line.
    void stopped_by(int signal);

    // Waits until the plug-in's default mode command is answered and
    // published and all that the start-up set going has settled; bounded.
    void wait_for_start_up();
    void fail(const std::string& reason);
    SessionResult result() const;

    const Options& options_;
    const lines::Messages& messages_;
    StopSignals stop_signals_;
    int stopped_by_ = 0;  // the signal that stopped the session; 0: none
    std::ifstream script_file_;
    std::unique_ptr<lines::Output> output_;
    std::unique_ptr<Window> window_;
    std::unique_ptr<HostObservers> observers_;
    std::unique_ptr<LiveView> live_view_;
    std::unique_ptr<SimulatedController> controller_;
    std::unique_ptr<Script> script_;
    std::unique_ptr<Recorder> recorder_;
    std::unique_ptr<standin::PluginHost> plugin_;
    bool prepared_ = false;
    std::atomic<bool> init_failed_{false};
    // Why the session failed outside its script's lines, in order.
    mutable std::mutex failures_mutex_;
    std::vector<std::string> failures_;  // guarded by failures_mutex_
};

}  // namespace terminal
