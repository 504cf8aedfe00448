#include "session/session.h"

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <ctime>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <thread>

#include "ac_dal/ac_dal.h"
#include "lines/listener.h"
#include "session/config_file.h"
#include "standin/bus.h"
#include "standin/config.h"
#include "standin/database.h"
#include "standin/services.h"

namespace terminal {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// How long the end of the input waits for the last reactions to show: the
// plug-in handles a controller letter outside the bus's accounting, so the
// terminal ends once bus, queues and controller line are empty and nothing
// was printed for a moment. A pending timed release is let run to its end.
constexpr auto kQuietBeforeExit = 200ms;
constexpr auto kSettleLimit = 3s;
constexpr auto kSettlePoll = 20ms;
// How long the plug-in's start-up may take before the commands run anyway.
constexpr auto kStartUpLimit = 10s;

// Polls until `settled` holds, at most until the limit, which `settled` may
// push back.
void poll_until(const std::function<bool(Clock::time_point& limit)>& settled)
{
    auto limit = Clock::now() + kSettleLimit;
    while (!settled(limit) && Clock::now() < limit)
        std::this_thread::sleep_for(kSettlePoll);
}

// Lets the work that the input started finish: bus and plug-in queues idle,
// the controller line read in both directions, no timed release pending, and
// a moment without output.
void settle(const lines::Output& output, const simulator::Turnstile* turnstile)
{
    poll_until([&](Clock::time_point& limit) {
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
        return idle && line_quiet && output.quiet_time() >= kQuietBeforeExit;
    });
}

// After a failed init: lets everything the plug-in did before it failed
// show. The controller has read and printed every text written to the line,
// and the bus has delivered every message.
void drain(const simulator::Turnstile* turnstile)
{
    poll_until([&](Clock::time_point&) {
        return standin::Bus::instance().wait_idle(100ms) &&
               (turnstile == nullptr || turnstile->commands_answered());
    });
}

// Whether the line publishes the answer to a permanent-mode command: a
// "catra_event" of codes 0 to 3, as the plug-in's start-up ends with.
bool answers_mode_command(const lines::Json& line)
{
    if (lines::kind_of(line) != lines::Kind::bus || lines::subject(line) != "catra_event")
        return false;
    const lines::Json event = lines::field_of(line, "event");
    return event.is_number_integer() && event >= 0 && event <= 3;
}

}  // namespace

// The simulated controller, printing what crosses its line.
struct Session::SimulatedController {
    SimulatedController(lines::Output& output, const lines::Messages& messages)
        : turnstile(line, lines::printing_listener(output, [&messages](const std::string& reason) {
                        messages.say("the simulated controller stopped: " + reason);
                    }))
    {
    }

    simulator::ControllerPty line;
    simulator::Turnstile turnstile;
};

Session::Session(const Options& options, const lines::Messages& messages)
    : options_(options), messages_(messages)
{
}

Session::~Session() = default;

int Session::play()
{
    // Quick, and before any thread of the session's: a signal that comes
    // meanwhile waits for the watch below.
    if (!prepare())
        return end();
    // Whichever comes first: the steps' end, or a stop signal.
    struct Ending {
        std::mutex mutex;
        std::condition_variable came;
        bool steps_over = false;  // guarded by mutex
        int signal = 0;           // guarded by mutex
    };
    auto ending = std::make_shared<Ending>();
    std::thread([this, ending] {
        const int signal = stop_signals_.wait();
        std::lock_guard<std::mutex> lock(ending->mutex);
        ending->signal = signal;
        ending->came.notify_all();
    }).detach();
    // The steps' thread is left to the end of the process when a signal
    // stops the session: it may be waiting anywhere, on standard input too.
    std::thread([this, ending] {
        const bool over = !start_plugin() || run();
        if (!over)
            return;
        std::lock_guard<std::mutex> lock(ending->mutex);
        ending->steps_over = true;
        ending->came.notify_all();
    }).detach();
    std::unique_lock<std::mutex> lock(ending->mutex);
    ending->came.wait(lock, [&] { return ending->steps_over || ending->signal != 0; });
    if (ending->signal != 0) {
        stop_signals_.end_at_once_on_next(messages_);
        stopped_by(ending->signal);
    }
    return end();
}

bool Session::prepare()
{
    if (!options_.script.empty()) {
        script_file_.open(options_.script);
        if (!script_file_) {
            fail(options_.script + ": cannot be read");
            return false;
        }
    }

    standin::Config& config = standin::Config::instance();
    if (!options_.config.empty()) {
        const std::string error = load_config_file(options_.config, config);
        if (!error.empty()) {
            fail(error);
            return false;
        }
    }

    standin::Database& database = standin::Database::instance();
    try {
        database.open(options_.db);
        database.seed(ac_dal::device::this_id(), static_cast<int>(std::time(nullptr)));
    } catch (const std::exception& e) {
        fail(std::string("database: ") + e.what());
        return false;
    }

    const bool json = options_.json || ::isatty(STDOUT_FILENO) == 0;
    output_ =
        std::make_unique<lines::Output>(stdout, json ? lines::Style::json : lines::Style::readable);
    window_ = std::make_unique<Window>(*output_);
    observers_ = std::make_unique<HostObservers>(*output_);
    const bool simulated = !config.get("catra", "device_path", nullptr);
    if (!options_.http.empty()) {
        live_view_ = std::make_unique<LiveView>(*output_, config, database, simulated, messages_);
        const std::string error = live_view_->listen(options_.http, options_.http_token);
        if (!error.empty()) {
            fail(error);
            return false;
        }
        messages_.say("the live view is at " + live_view_->url());
    }
    standin::install_services();

    if (simulated) {
        controller_ = std::make_unique<SimulatedController>(*output_, messages_);
        config.set("catra", "device_path", controller_->line.slave_path());
        controller_->turnstile.start();
    }

    script_ = std::make_unique<Script>(Script::Parts{
        *output_, *window_, database, controller_ != nullptr ? &controller_->turnstile : nullptr,
        messages_, options_.script});
    if (!options_.record.empty()) {
        try {
            recorder_ = std::make_unique<Recorder>(options_.record, *window_, options_.config);
        } catch (const std::exception& e) {
            fail(e.what());
            return false;
        }
        script_->set_observer(recorder_.get());
    }
    prepared_ = true;
    return true;
}

bool Session::start_plugin()
{
    plugin_ = std::make_unique<standin::PluginHost>(options_.plugin);
    std::string error;
    if (plugin_->init(&error)) {
        plugin_->start();
        wait_for_start_up();
        return true;
    }
    // What the plug-in did before it failed comes first, then the reason. A
    // script may expect the failure (the init_failed line): it runs without
    // its actions, and the session passes when all its expectations, that
    // one among them, are met.
    drain(controller_ != nullptr ? &controller_->turnstile : nullptr);
    output_->emit(lines::init_failed_line(error));
    fail("the plug-in did not start: " + error);
    init_failed_ = true;
    script_->refuse_actions("the plug-in did not start");
    if (!options_.script.empty())
        script_->run(script_file_);
    return false;
}

void Session::wait_for_start_up()
{
    if (window_->wait_until(answers_mode_command, kStartUpLimit)) {
        settle(*output_, controller_ != nullptr ? &controller_->turnstile : nullptr);
    } else {
        messages_.say(
            "the plug-in's start-up did not end within " +
            std::to_string(std::chrono::seconds(kStartUpLimit).count()) +
            " s: no answer to its mode command was published (does the controller answer?); "
            "the commands run now");
    }
    if (recorder_ != nullptr)
        recorder_->start_up_over();
}

bool Session::run()
{
    const simulator::Turnstile* turnstile =
        controller_ != nullptr ? &controller_->turnstile : nullptr;
    std::istream& input = options_.script.empty() ? std::cin : script_file_;
    if (live_view_)
        live_view_->attach(*script_);
    script_->run(input);
    if (live_view_)
        return false;
    settle(*output_, turnstile);
    return true;
}

void Session::stopped_by(int signal)
{
    stopped_by_ = signal;
    std::string cut;
    const auto add = [&cut](const std::string& what) { cut += (cut.empty() ? "" : "; ") + what; };
    if (controller_ != nullptr) {
        if (const auto deadline = controller_->turnstile.release_deadline()) {
            const auto left =
                std::chrono::duration_cast<std::chrono::seconds>(*deadline - Clock::now());
            add("a release still pending (it would give up in " + std::to_string(left.count()) +
                " s)");
        }
    }
    if (script_ != nullptr && !script_->running().empty())
        add("a line still running: " + script_->running());
    const std::string said = std::string("stopped by ") +
                             (signal == SIGINT ? "SIGINT" : "SIGTERM") +
                             (cut.empty() ? "" : ", cutting short " + cut);
    fail(said);
}

int Session::end()
{
    if (recorder_ != nullptr)
        recorder_->finish();
    SessionResult outcome = result();
    if (options_.result.empty()) {
        if (outcome.expectations > 0 || outcome.bad_lines > 0) {
            messages_.say((options_.script.empty() ? "" : options_.script + ": ") +
                          std::to_string(outcome.met) + " of " +
                          std::to_string(outcome.expectations) + " expectations met" +
                          (outcome.bad_lines == 0
                               ? ""
                               : ", " + std::to_string(outcome.bad_lines) +
                                     (outcome.bad_lines == 1 ? " line" : " lines") + " not run"));
        }
    } else if (!write_session_result(options_.result, outcome)) {
        messages_.say(options_.result + ": cannot be written");
        outcome.passed = false;
    }
    if (controller_ != nullptr)
        controller_->turnstile.stop();
    std::cout.flush();
    if (stopped_by_ != 0)
        return 128 + stopped_by_;
    return outcome.passed ? 0 : 1;
}

void Session::fail(const std::string& reason)
{
    messages_.say(reason);
    std::lock_guard<std::mutex> lock(failures_mutex_);
    failures_.push_back(reason);
}

SessionResult Session::result() const
{
    SessionResult outcome;
    {
        std::lock_guard<std::mutex> lock(failures_mutex_);
        outcome.reasons = failures_;
    }
    outcome.init_failed = init_failed_;
    if (script_ == nullptr)
        return outcome;
    const Script::Tally tally = script_->tally();
    outcome.expectations = tally.expectations;
    outcome.met = tally.met;
    outcome.bad_lines = tally.bad_lines;
    outcome.reasons.insert(outcome.reasons.end(), tally.reasons.begin(), tally.reasons.end());
    outcome.passed = prepared_ && stopped_by_ == 0 && tally.met == tally.expectations;
    if (init_failed_)
        outcome.passed = outcome.passed && tally.init_failure_expected && tally.bad_lines == 0;
    return outcome;
}

}  // namespace terminal
