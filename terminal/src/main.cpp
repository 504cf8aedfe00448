// catra-terminal: the stand-in terminal. Loads the turnstile plug-in the way
// the terminal's host framework does (dlopen, init, run on a thread of its
// own), serves it with the stand-in host's bus, configuration store and
// database, puts a simulated turnstile controller on a pseudo-terminal unless
// the configuration names a controller device, and runs the commands of a
// script or of standard input, printing everything that happens.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <thread>

#include "ac_dal/ac_dal.h"
#include "check.h"
#include "config_file.h"
#include "live_view.h"
#include "observers.h"
#include "options.h"
#include "output.h"
#include "recorder.h"
#include "records.h"
#include "script.h"
#include "simulator/controller_pty.h"
#include "simulator/turnstile.h"
#include "standin/standin.h"

namespace {

using namespace std::chrono_literals;
using terminal::Json;
using terminal::Output;

// How long the end of input waits for the last reactions to show: the plug-in
// handles a controller letter outside the bus's accounting, so the terminal
// ends once bus, queues and controller line are empty and nothing was printed
// for a moment. A pending timed release is let run to its end.
constexpr auto kQuietBeforeExit = 200ms;
constexpr auto kSettleLimit = 3s;

void report(const std::string& text)
{
    std::cerr << "catra-terminal: " << text << std::endl;
}

// The simulated controller, printing what crosses its line.
struct SimulatedController {
    explicit SimulatedController(Output& output)
        : turnstile(line, simulator::Turnstile::Listener{
                              [&output](const std::string& text) {
                                  output.emit(Json{{"controller", text}});
                              },
                              [&output](char letter) {
                                  output.emit(Json{{"turnstile", std::string(1, letter)}});
                              },
                              [&output](simulator::Side side, bool turned) {
                                  output.emit(
                                      Json{{"person", side == simulator::Side::left ? "turn_left"
                                                                                    : "turn_right"},
                                           {"turned", turned}});
                              },
                              [](const std::string& reason) {
                                  report("the simulated controller stopped: " + reason);
                              }})
    {
    }

    simulator::ControllerPty line;
    simulator::Turnstile turnstile;
};

// Lets the work that the input started finish: bus and plug-in queues idle,
// the controller line read in both directions, no timed release pending, and
// a moment without output. Bounded: a pending release adds its own time.
void settle(Output& output, simulator::Turnstile* turnstile)
{
    auto limit = std::chrono::steady_clock::now() + kSettleLimit;
    for (;;) {
        const bool idle = standin::Bus::instance().wait_idle(100ms);
        bool line_quiet = true;
        if (turnstile != nullptr) {
            if (const auto deadline = turnstile->release_deadline()) {
                limit = std::max(limit, *deadline + kSettleLimit);
                line_quiet = false;
            } else {
                line_quiet = turnstile->quiet();
            }
        }
        if (idle && line_quiet && output.quiet_time() >= kQuietBeforeExit)
            return;
        if (std::chrono::steady_clock::now() >= limit)
            return;
        std::this_thread::sleep_for(20ms);
    }
}

// After a failed init: lets everything the plug-in did before it failed show.
// The controller has read and printed every text written to the line, and
// the bus has delivered every message (bounded by the settle limit).
void drain(simulator::Turnstile* turnstile)
{
    const auto limit = std::chrono::steady_clock::now() + kSettleLimit;
    while (std::chrono::steady_clock::now() < limit) {
        const bool idle = standin::Bus::instance().wait_idle(100ms);
        if (idle && (turnstile == nullptr || turnstile->commands_answered()))
            return;
        std::this_thread::sleep_for(10ms);
    }
}

// catra-terminal itself, to run each scenario of a check in a process of its own.
std::string own_program(const char* argv0)
{
    std::error_code failed;
    const auto path = std::filesystem::read_symlink("/proc/self/exe", failed);
    return failed ? std::string(argv0) : path.string();
}

[[noreturn]] void finish(int code, SimulatedController* controller)
{
    if (controller != nullptr)
        controller->turnstile.stop();
    std::cout.flush();
    // The plug-in's threads never end: the process ends without running
    // static destructors under them.
    standin::end_process(code);
}

// The end of a session: what followed the last action recorded, the tally of
// the expectations printed, and the exit status: 1 when one failed; after a
// failed init, 0 only when the script expected the failure and all else.
[[noreturn]] void end_session(const terminal::Script& script, terminal::Recorder* recorder,
                              bool init_failed, SimulatedController* controller)
{
    if (recorder != nullptr)
        recorder->finish();
    script.print_tally();
    const terminal::Script::Tally tally = script.tally();
    bool passed = tally.met == tally.expectations;
    if (init_failed)
        passed = passed && tally.init_failure_expected && tally.bad_lines == 0;
    finish(passed ? 0 : 1, controller);
}

}  // namespace

int main(int argc, char** argv)
{
    terminal::Options options;
    if (const auto code = terminal::parse_options(argc, argv, options))
        return *code;
    if (!options.check.empty()) {
        return terminal::run_checks({own_program(argv[0]), options.plugin, options.config,
                                     options.check, options.jobs, options.junit},
                                    std::cout);
    }

    // With the live view the terminal runs until interrupted: the stop
    // signals are blocked before any thread starts, and taken by sigwait.
    std::optional<terminal::StopSignals> stop_signals;
    if (!options.http.empty())
        stop_signals.emplace();

    std::ifstream script_file;
    if (!options.script.empty()) {
        script_file.open(options.script);
        if (!script_file) {
            report(options.script + ": cannot be read");
            return 1;
        }
    }

    standin::Config& config = standin::Config::instance();
    if (!options.config.empty()) {
        const std::string error = terminal::load_config_file(options.config, config);
        if (!error.empty()) {
            report(error);
            return 1;
        }
    }

    standin::Database& database = standin::Database::instance();
    try {
        database.open(options.db);
        terminal::seed_records(database, ac_dal::device::this_id());
    } catch (const std::exception& e) {
        report(std::string("database: ") + e.what());
        return 1;
    }

    const bool json = options.json || !::isatty(STDOUT_FILENO);
    Output output(stdout, json ? terminal::Style::json : terminal::Style::readable);
    terminal::HostObservers observers(output);
    std::unique_ptr<terminal::LiveView> live_view;
    if (!options.http.empty()) {
        live_view = std::make_unique<terminal::LiveView>(
            output, config, !config.get("catra", "device_path", nullptr));
        const std::string http_error = live_view->listen(options.http, options.http_token);
        if (!http_error.empty()) {
            report(http_error);
            return 1;
        }
        report("the live view is at " + live_view->url());
    }
    standin::install_services();

    std::unique_ptr<SimulatedController> controller;
    if (!config.get("catra", "device_path", nullptr)) {
        controller = std::make_unique<SimulatedController>(output);
        config.set("catra", "device_path", controller->line.slave_path());
        controller->turnstile.start();
    }

    simulator::Turnstile* turnstile = controller ? &controller->turnstile : nullptr;
    terminal::Script script(output, database, turnstile, std::cerr);
    if (!options.script.empty())
        script.set_source(options.script);
    std::unique_ptr<terminal::Recorder> recorder;
    if (!options.record.empty()) {
        try {
            recorder = std::make_unique<terminal::Recorder>(options.record, output, options.config);
        } catch (const std::exception& e) {
            report(e.what());
            finish(1, controller.get());
        }
        script.set_recorder(recorder.get());
    }

    standin::PluginHost plugin(options.plugin);
    std::string error;
    if (!plugin.init(&error)) {
        // What the plug-in did before it failed comes first, then the reason.
        // A script may expect the failure (the "init_failed" line): it runs
        // without its actions, and the exit status is 0 when all its
        // expectations, that one among them, are met.
        drain(turnstile);
        output.emit(Json{{"init_failed", error}});
        report("the plug-in did not start: " + error);
        if (!options.script.empty()) {
            script.refuse_actions("the plug-in did not start");
            script.run(script_file);
        }
        end_session(script, recorder.get(), true, controller.get());
    }
    plugin.start();

    std::istream& input = options.script.empty() ? std::cin : script_file;
    if (live_view) {
        // The script runs beside the live view; the terminal ends on SIGINT or
        // SIGTERM, even while the script still reads its input.
        live_view->attach(script);
        std::thread script_thread([&script, &input] { script.run(input); });
        script_thread.detach();
        const int signal = stop_signals->wait();
        stop_signals->end_at_once_on_next();
        report(std::string("stopping on ") + (signal == SIGINT ? "SIGINT" : "SIGTERM"));
        live_view->stop();
    } else {
        script.run(input);
    }
    settle(output, turnstile);
    end_session(script, recorder.get(), false, controller.get());
}
