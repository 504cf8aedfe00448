// One run of catra-terminal, step by step: the services prepared, the
// plug-in started, the commands run once its start-up is over, and the end,
// which lets what the commands started finish and gives the session's result.
// Only main() ends the process.
#pragma once

#include <fstream>
#include <memory>
#include <optional>
#include <string>

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
    Session(const Options& options, const lines::Messages& messages);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

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
    // only a script); with the live view, also the lines posted to it, until
    // SIGINT or SIGTERM.
    void run();
    // Lets what the last commands started finish, and gives the session's
    // result: written to the --result file, or its tally printed. Returns the
    // exit status: 0 when it passed.
    int end();

private:
    struct SimulatedController;

    // Waits until the plug-in's default mode command is answered and
    // published and all that the start-up set going has settled; bounded.
    void wait_for_start_up();
    void fail(const std::string& reason);
    SessionResult result() const;

    const Options& options_;
    const lines::Messages& messages_;
    std::optional<StopSignals> stop_signals_;
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
    bool init_failed_ = false;
    // Why the session failed outside its script's lines, in order.
    std::vector<std::string> failures_;
};

}  // namespace terminal
