#include "script/runner.h"

#include <malloc.h>

#include <algorithm>
#include <istream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "ac/ac.h"
#include "bus/observers.h"
#include "script/matcher.h"
#include "script/records.h"
#include "standin/config.h"

namespace terminal {

namespace {

using lines::CommandError;
using lines::Verb;

constexpr std::chrono::milliseconds kRequestTimeout{10000};

// An action that cannot run in this session; its text is the error line.
struct Refused : CommandError {
    using CommandError::CommandError;
};

// An expectation that was not met; its text is the report.
struct Unmet : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string quoted(const std::string& text)
{
    return lines::compact(Json(text));
}

// A new message of that type with the command's fields, in order.
std::unique_ptr<ac::Message> new_message(const lines::Message& given)
{
    auto message = std::make_unique<ac::Message>(given.type, 0, nullptr);
    for (const lines::Field& field : given.fields) {
        if (const int* number = std::get_if<int>(&field.value))
            message->add_int(field.key, *number);
        else
            message->add_string(field.key, std::get<std::string>(field.value));
    }
    return message;
}

void send_own(std::unique_ptr<ac::Message> message)
{
    OwnSend own;
    ac::PostOffice::send_message(message.release());
}

std::string ms_text(std::chrono::milliseconds time)
{
    return std::to_string(time.count()) + " ms";
}

}  // namespace

// The turn of one line, taken for the life of the object when owned().
class Script::Turn {
public:
    // Waits as long as it takes.
    explicit Turn(Script& script) : script_(script), owned_(true)
    {
        std::unique_lock<std::mutex> lock(script_.turn_mutex_);
        script_.turn_free_.wait(lock, [this] { return !script_.turn_taken_; });
        script_.turn_taken_ = true;
    }
    // Waits at most `within`.
    Turn(Script& script, std::chrono::milliseconds within) : script_(script)
    {
        std::unique_lock<std::mutex> lock(script_.turn_mutex_);
        owned_ = script_.turn_free_.wait_for(lock, within, [this] { return !script_.turn_taken_; });
        if (owned_)
            script_.turn_taken_ = true;
    }
    ~Turn()
    {
        if (!owned_)
            return;
        {
            std::lock_guard<std::mutex> lock(script_.turn_mutex_);
            script_.turn_taken_ = false;
        }
        script_.turn_free_.notify_one();
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    bool owned() const { return owned_; }

private:
    Script& script_;
    bool owned_ = false;
};

Script::Script(Parts parts) : parts_(std::move(parts)) {}

void Script::set_observer(LineObserver* observer)
{
    observer_ = observer;
}

void Script::refuse_actions(const std::string& reason)
{
    refusal_ = reason;
}

void Script::run(std::istream& input)
{
    std::string line;
    int number = 0;
    while (std::getline(input, line)) {
        const Turn turn(*this);
        const Outcome outcome = run_line(line, ++number);
        if (outcome.kind == Outcome::Kind::bad || outcome.kind == Outcome::Kind::refused)
            report(where(number) + outcome.text);
    }
}

Script::Outcome Script::run_posted(const std::string& line, std::chrono::milliseconds longest_wait,
                                   std::chrono::milliseconds script_wait)
{
    const Turn turn(*this, script_wait);
    if (!turn.owned()) {
        return {Outcome::Kind::busy, "the script is still running another line after " +
                                         ms_text(script_wait) + "; try again"};
    }
    const std::chrono::milliseconds script_longest = grammar_.longest_wait;
    grammar_.longest_wait = longest_wait;
    counting_ = false;
    Outcome outcome = run_line(line, 0);
    counting_ = true;
    grammar_.longest_wait = script_longest;
    return outcome;
}

Script::Tally Script::tally() const
{
    std::lock_guard<std::mutex> lock(tally_mutex_);
    return tally_;
}

// What is running, for a stop that cuts it short.
class Script::Running {
public:
    Running(Script& script, const std::string& text) : script_(script)
    {
        std::lock_guard<std::mutex> lock(script_.tally_mutex_);
        script_.running_ = text;
    }
    ~Running()
    {
        std::lock_guard<std::mutex> lock(script_.tally_mutex_);
        script_.running_.clear();
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

private:
    Script& script_;
};

std::string Script::running() const
{
    std::lock_guard<std::mutex> lock(tally_mutex_);
    return running_;
}

Script::Outcome Script::run_line(const std::string& line, int number)
{
    constexpr std::size_t kShown = 60;
    const Running now_running(
        *this, where(number) + (line.size() > kShown ? line.substr(0, kShown) + "..." : line));
    Outcome outcome;
    try {
        const std::optional<lines::Command> command = lines::parse_command(line, grammar_);
        if (!command)
            return outcome;
        run_command(*command);
        if (observer_ != nullptr)
            observer_->ran(command->given);
        return outcome;
    } catch (const Unmet& e) {
        // An unmet expectation is reported, and counted, where it is met or
        // not: the line itself ran.
        if (counting_)
            report(where(number) + e.what());
        return {Outcome::Kind::unmet, e.what()};
    } catch (const Refused& e) {
        outcome = {Outcome::Kind::refused, e.what()};
    } catch (const std::exception& e) {
        outcome = {Outcome::Kind::bad, e.what()};
    }
    std::lock_guard<std::mutex> lock(tally_mutex_);
    if (counting_)
        ++tally_.bad_lines;
    return outcome;
}

void Script::run_command(const lines::Command& command)
{
    if (lines::acts(command.verb)) {
        if (!refusal_.empty())
            throw Refused(quoted(lines::name_of(command.verb)) + " is not run: " + refusal_);
        act(command);
    } else {
        follow(command);
    }
}

void Script::act(const lines::Command& command)
{
    switch (command.verb) {
        case Verb::send: {
            std::unique_ptr<ac::Message> message =
                new_message(std::get<lines::Message>(command.arguments));
            begin_action();
            send_own(std::move(message));
            break;
        }
        case Verb::request: {
            const auto& given = std::get<lines::Message>(command.arguments);
            std::unique_ptr<ac::Message> message = new_message(given);
            begin_action();
            const std::chrono::milliseconds timeout =
                std::min(kRequestTimeout, grammar_.longest_wait);
            const std::optional<Reply> reply = ask(std::move(message), timeout);
            if (!reply)
                throw CommandError("request " + quoted(given.type) + ": no answer within " +
                                   ms_text(timeout));
            parts_.output.emit(lines::reply_line(given.type, reply->replied, reply->fields));
            break;
        }
        case Verb::config: {
            const auto& change = std::get<lines::ConfigChange>(command.arguments);
            begin_action();
            standin::Config::instance().set(change.module, change.key, change.value);
            auto message = std::make_unique<ac::Message>("config_param_set", 0, nullptr);
            message->add_string("module", change.module);
            message->add_string("param", change.key);
            message->add_string("value", change.value);
            send_own(std::move(message));
            break;
        }
        case Verb::gpio: {
            const auto& change = std::get<lines::GpioChange>(command.arguments);
            auto message = std::make_unique<ac::Message>("gpio_notified", 0, nullptr);
            message->add_int("gpio", change.gpio);
            message->add_int("value", change.value);
            begin_action();
            send_own(std::move(message));
            break;
        }
        case Verb::controller: {
            simulator::Turnstile& reporter = turnstile(command.verb);
            begin_action();
            reporter.report(std::get<lines::Letters>(command.arguments).letters);
            break;
        }
        case Verb::person: {
            simulator::Turnstile& pushed = turnstile(command.verb);
            begin_action();
            pushed.push(std::get<lines::Turn>(command.arguments).side);
            break;
        }
        default: break;
    }
}

void Script::follow(const lines::Command& command)
{
    switch (command.verb) {
        case Verb::wait_ms:
            std::this_thread::sleep_for(std::get<lines::Pause>(command.arguments).time);
            break;
        case Verb::dump: {
            const std::string& what = std::get<lines::Records>(command.arguments).what;
            try {
                parts_.output.emit(lines::dump_line(what, dump_records(parts_.database, what)));
            } catch (const UnknownRecords& e) {
                throw CommandError(e.what());
            }
            // A dump of many records takes much memory for a moment: give it
            // back, so that the terminal holds no more after it than before.
            malloc_trim(0);
            break;
        }
        case Verb::note:
            parts_.output.emit(lines::note_line(std::get<lines::Note>(command.arguments).text));
            break;
        case Verb::wait_for: {
            const auto& look = std::get<lines::Look>(command.arguments);
            if (!parts_.window.wait_for(look.pattern, look.time)) {
                throw CommandError("wait_for " + lines::compact(look.pattern) +
                                   ": no such line within " + ms_text(look.time));
            }
            break;
        }
        case Verb::expect: {
            const auto& look = std::get<lines::Look>(command.arguments);
            count(&Script::Tally::expectations);
            Json found;
            if (!parts_.window.wait_for(look.pattern, look.time, &found)) {
                const Printed printed = parts_.window.since_mark();
                throw Unmet("expect " + lines::compact(look.pattern) + ": no such line within " +
                            ms_text(look.time) + nearest_lines(printed.lines, look.pattern) +
                            (printed.dropped == 0 ? ""
                                                  : "\n    (" + std::to_string(printed.dropped) +
                                                        " older lines no longer kept)"));
            }
            count(&Script::Tally::met);
            if (counting_ && lines::kind_of(found) == lines::Kind::init_failed) {
                std::lock_guard<std::mutex> lock(tally_mutex_);
                tally_.init_failure_expected = true;
            }
            break;
        }
        case Verb::expect_none: {
            const auto& look = std::get<lines::Look>(command.arguments);
            count(&Script::Tally::expectations);
            Json found;
            if (parts_.window.wait_for(look.pattern, look.time, &found)) {
                throw Unmet("expect_none " + lines::compact(look.pattern) + ": printed within " +
                            ms_text(look.time) + " since the last action:\n    " +
                            lines::compact(found));
            }
            count(&Script::Tally::met);
            break;
        }
        default: break;
    }
}

simulator::Turnstile& Script::turnstile(lines::Verb verb) const
{
    if (parts_.turnstile == nullptr) {
        throw Refused(quoted(lines::name_of(verb)) +
                      " needs the simulated controller, but \"device_path\" names a device");
    }
    return *parts_.turnstile;
}

void Script::begin_action()
{
    if (observer_ != nullptr)
        observer_->before_action();
    parts_.window.mark();
}

std::string Script::where(int number) const
{
    if (number == 0)
        return "posted line: ";
    if (parts_.source.empty())
        return "line " + std::to_string(number) + ": ";
    return parts_.source + ":" + std::to_string(number) + ": ";
}

void Script::count(int Tally::*counter)
{
    if (!counting_)
        return;
    std::lock_guard<std::mutex> lock(tally_mutex_);
    ++(tally_.*counter);
}

void Script::report(const std::string& text)
{
    parts_.messages.say(text);
    std::lock_guard<std::mutex> lock(tally_mutex_);
    tally_.reasons.push_back(text);
}

}  // namespace terminal
