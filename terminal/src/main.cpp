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
#include <ctime>
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
#include "window.h"

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
// How long the plug-in's start-up may take before the commands run anyway.
constexpr auto kStartUpLimit = 10s;

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
void settle(const Output& output, simulator::Turnstile* turnstile)
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

// Whether the line publishes the answer to a permanent-mode command: a
// "catra_event" of codes 0 to 3, as the plug-in's start-up ends with.
bool answers_mode_command(const Json& line)
{
    if (!line.is_object() || line.value("bus", Json()) != "catra_event")
        return false;
    for (const Json& field : line.value("fields", Json::array())) {
        if (field.is_array() && field.size() == 2 && field[0] == "event")
            return field[1].is_number_integer() && field[1] >= 0 && field[1] <= 3;
    }
    return false;
}

// One run of the terminal: the services and the plug-in started, the commands
// run once the plug-in's start-up is over, what they started let finish, and
// the process ended with the session's result.
class Session {
public:
    explicit Session(const terminal::Options& options) : options_(options) {}

    // Everything but the plug-in: configuration, database, output, live view,
    // simulated controller, script and recorder. An exit status on failure.
    std::optional<int> prepare();
    // Loads and starts the plug-in; after a failed init the session ends.
    void start_plugin();
    // Waits until the plug-in's start-up is over, so that no command races
    // it: its default mode command answered and published, and all that the
    // start-up set going settled. Bounded: a controller that never answers
    // (a real device unplugged, say) is reported and the commands run anyway.
    void wait_for_start_up();
    // Runs the commands: the script or standard input, and with the live
    // view the lines posted to it until SIGINT or SIGTERM.
    void run();
    // Lets what the last commands started finish, then ends the process.
    [[noreturn]] void end() { end_session(false); }

private:
    [[noreturn]] void end_session(bool init_failed);
    [[noreturn]] void finish(int code);

    const terminal::Options& options_;
    std::optional<terminal::StopSignals> stop_signals_;
    std::ifstream script_file_;
    std::unique_ptr<Output> output_;
    std::unique_ptr<terminal::Window> window_;
    std::unique_ptr<terminal::HostObservers> observers_;
    std::unique_ptr<terminal::LiveView> live_view_;
    std::unique_ptr<SimulatedController> controller_;
    simulator::Turnstile* turnstile_ = nullptr;
    std::unique_ptr<terminal::Script> script_;
    std::unique_ptr<terminal::Recorder> recorder_;
    std::unique_ptr<standin::PluginHost> plugin_;
};

std::optional<int> Session::prepare()
{
    // With the live view the terminal runs until interrupted: the stop
    // signals are blocked before any thread starts, and taken by sigwait.
    if (!options_.http.empty())
        stop_signals_.emplace();

    if (!options_.script.empty()) {
        script_file_.open(options_.script);
        if (!script_file_) {
            report(options_.script + ": cannot be read");
            return 1;
        }
    }

    standin::Config& config = standin::Config::instance();
    if (!options_.config.empty()) {
        const std::string error = terminal::load_config_file(options_.config, config);
        if (!error.empty()) {
            report(error);
            return 1;
        }
    }

    standin::Database& database = standin::Database::instance();
    try {
        database.open(options_.db);
        database.seed(ac_dal::device::this_id(), static_cast<int>(std::time(nullptr)));
    } catch (const std::exception& e) {
        report(std::string("database: ") + e.what());
        return 1;
    }

    const bool json = options_.json || !::isatty(STDOUT_FILENO);
    output_ =
        std::make_unique<Output>(stdout, json ? terminal::Style::json : terminal::Style::readable);
    window_ = std::make_unique<terminal::Window>(*output_);
    observers_ = std::make_unique<terminal::HostObservers>(*output_);
    if (!options_.http.empty()) {
        live_view_ = std::make_unique<terminal::LiveView>(
            *output_, config, database, !config.get("catra", "device_path", nullptr));
        const std::string http_error = live_view_->listen(options_.http, options_.http_token);
        if (!http_error.empty()) {
            report(http_error);
            return 1;
        }
        report("the live view is at " + live_view_->url());
    }
    standin::install_services();

    if (!config.get("catra", "device_path", nullptr)) {
        controller_ = std::make_unique<SimulatedController>(*output_);
        config.set("catra", "device_path", controller_->line.slave_path());
        controller_->turnstile.start();
        turnstile_ = &controller_->turnstile;
    }

    script_ =
        std::make_unique<terminal::Script>(*output_, *window_, database, turnstile_, std::cerr);
    if (!options_.script.empty())
        script_->set_source(options_.script);
    if (!options_.record.empty()) {
        try {
            recorder_ =
                std::make_unique<terminal::Recorder>(options_.record, *window_, options_.config);
        } catch (const std::exception& e) {
            report(e.what());
            finish(1);
        }
        script_->set_recorder(recorder_.get());
    }
    return std::nullopt;
}

void Session::start_plugin()
{
    plugin_ = std::make_unique<standin::PluginHost>(options_.plugin);
    std::string error;
    if (plugin_->init(&error)) {
        plugin_->start();
        return;
    }
    // What the plug-in did before it failed comes first, then the reason. A
    // script may expect the failure (the "init_failed" line): it runs without
    // its actions, and the exit status is 0 when all its expectations, that
    // one among them, are met.
    drain(turnstile_);
    output_->emit(Json{{"init_failed", error}});
    report("the plug-in did not start: " + error);
    if (!options_.script.empty()) {
        script_->refuse_actions("the plug-in did not start");
        script_->run(script_file_);
    }
    end_session(true);
}

void Session::wait_for_start_up()
{
    if (window_->wait_until(answers_mode_command, kStartUpLimit)) {
        settle(*output_, turnstile_);
    } else {
        report("the plug-in's start-up did not end within " +
               std::to_string(std::chrono::seconds(kStartUpLimit).count()) +
               " s: no answer to its mode command was published (does the controller answer?); "
               "the commands run now");
    }
    if (recorder_ != nullptr)
        recorder_->start_up_over();
}

void Session::run()
{
    std::istream& input = options_.script.empty() ? std::cin : script_file_;
    if (!live_view_) {
        script_->run(input);
        settle(*output_, turnstile_);
        return;
    }
    // The script runs beside the live view; the terminal ends on SIGINT or
    // SIGTERM, even while the script still reads its input.
    live_view_->attach(*script_);
    std::thread script_thread([this, &input] { script_->run(input); });
    script_thread.detach();
    const int signal = stop_signals_->wait();
    stop_signals_->end_at_once_on_next();
    report(std::string("stopping on ") + (signal == SIGINT ? "SIGINT" : "SIGTERM"));
    live_view_->stop();
    settle(*output_, turnstile_);
}

void Session::finish(int code)
{
    if (controller_ != nullptr)
        controller_->turnstile.stop();
    std::cout.flush();
    // The plug-in's threads never end: the process ends without running
    // static destructors under them.
    standin::end_process(code);
}

// The end of a session: what followed the last action recorded, the tally of
// the expectations printed, and the exit status: 1 when one failed; after a
// failed init, 0 only when the script expected the failure and all else.
void Session::end_session(bool init_failed)
{
    if (recorder_ != nullptr)
        recorder_->finish();
    const terminal::Script::Tally tally = script_->tally();
    bool passed = tally.met == tally.expectations;
    if (init_failed)
        passed = passed && tally.init_failure_expected && tally.bad_lines == 0;
    if (options_.result.empty()) {
        script_->print_tally();
    } else {
        std::ofstream file(options_.result, std::ios::trunc);
        file << Json{{"expectations", tally.expectations},
                     {"met", tally.met},
                     {"bad_lines", tally.bad_lines},
                     {"init_failed", init_failed},
                     {"passed", passed}}
                    .dump()
             << '\n';
        if (!file.flush()) {
            report(options_.result + ": cannot be written");
            passed = false;
        }
    }
    finish(passed ? 0 : 1);
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
    Session session(options);
    if (const auto code = session.prepare())
        return *code;
    session.start_plugin();
    session.wait_for_start_up();
    session.run();
    session.end();
}
