#include "script.h"

#include <algorithm>
#include <climits>
#include <istream>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <vector>

#include "ac/ac.h"
#include "observers.h"
#include "recorder.h"
#include "records.h"

namespace terminal {

namespace {

constexpr std::chrono::milliseconds kDefaultWaitFor{5000};
constexpr std::chrono::milliseconds kDefaultExpectNone{1000};
constexpr std::size_t kNearestShown = 5;
constexpr std::chrono::milliseconds kRequestTimeout{10000};

// A command that cannot be run as written; its text is the error line.
struct CommandError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// An action that cannot run in this session; its text is the error line.
struct Refused : CommandError {
    using CommandError::CommandError;
};

// An expectation that was not met; its text is the report.
struct Unmet : std::runtime_error {
    using std::runtime_error::runtime_error;
};

using Handler = void (Script::*)(const Json&);

struct CommandKind {
    const char* name;
    std::vector<std::string> options;  // the keys allowed beside the command's own
    Handler run;
    bool action = false;  // acts on the plug-in or the turnstile
};

std::string quoted(const std::string& text)
{
    return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

// A whole number within [low, high].
long long whole_number(const Json& value, const std::string& what, long long low, long long high)
{
    if (!value.is_number_integer())
        throw CommandError(what + " must be a whole number");
    long long number = 0;
    if (value.is_number_unsigned()) {
        const auto unsigned_number = value.get<unsigned long long>();
        if (unsigned_number > static_cast<unsigned long long>(high))
            throw CommandError(what + " must be at most " + std::to_string(high));
        number = static_cast<long long>(unsigned_number);
    } else {
        number = value.get<long long>();
    }
    if (number < low || number > high) {
        throw CommandError(what + " must be from " + std::to_string(low) + " to " +
                           std::to_string(high));
    }
    return number;
}

int int_value(const Json& value, const std::string& what)
{
    return static_cast<int>(whole_number(value, what, INT_MIN, INT_MAX));
}

std::string text_value(const Json& value, const std::string& what)
{
    if (!value.is_string())
        throw CommandError(what + " must be a text");
    return value.get<std::string>();
}

std::string message_type(const Json& command, const char* key)
{
    std::string type = text_value(command.at(key), quoted(key));
    if (type.empty())
        throw CommandError(quoted(key) + " needs a message type");
    return type;
}

// A new message of that type with the fields of a "fields" object, in order.
std::unique_ptr<ac::Message> new_message(const std::string& type, const Json& command)
{
    auto message = std::make_unique<ac::Message>(type, 0, nullptr);
    const auto fields = command.find("fields");
    if (fields == command.end())
        return message;
    if (!fields->is_object())
        throw CommandError("\"fields\" must be an object");
    for (const auto& field : fields->items()) {
        const std::string what = "field " + quoted(field.key());
        if (field.value().is_string()) {
            message->add_string(field.key(), field.value().get<std::string>());
        } else if (field.value().is_number_integer()) {
            message->add_int(field.key(), int_value(field.value(), what));
        } else {
            throw CommandError(what + " must be a whole number or a text");
        }
    }
    return message;
}

long long milliseconds(const Json& command, const char* key, long long otherwise, long long longest)
{
    const auto given = command.find(key);
    if (given == command.end())
        return std::min(otherwise, longest);
    return whole_number(*given, quoted(key), 0, longest);
}

const Json& pattern_of(const Json& command, const char* key)
{
    const Json& pattern = command.at(key);
    if (!pattern.is_object() || pattern.empty()) {
        throw CommandError(quoted(key) + " needs an object with the keys and values to look for");
    }
    return pattern;
}

std::string compact(const Json& value)
{
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// The lines printed since the last action, nearest the pattern first (in the
// order printed among equals), a few of them. Lines of the pattern's kind (its
// first key and value, as "bus": "catra_event") come before the others.
std::string nearest_lines(const std::vector<Json>& lines, const Json& pattern)
{
    if (lines.empty())
        return "; nothing was printed since the last action";
    const auto kind = pattern.begin();
    struct Ranked {
        bool same_kind;
        int nearness;
        const Json* line;
    };
    std::vector<Ranked> ranked;
    for (const Json& line : lines) {
        const auto found = line.is_object() ? line.find(kind.key()) : line.end();
        const bool same_kind = line.is_object() && found != line.end() && *found == kind.value();
        ranked.push_back({same_kind, nearness(line, pattern), &line});
    }
    std::stable_sort(ranked.begin(), ranked.end(), [](const Ranked& a, const Ranked& b) {
        return std::tie(a.same_kind, a.nearness) > std::tie(b.same_kind, b.nearness);
    });
    std::string text = "; the nearest of the " + std::to_string(lines.size()) +
                       (lines.size() == 1 ? " line" : " lines") + " printed since the last action:";
    for (std::size_t i = 0; i < ranked.size() && i < kNearestShown; ++i)
        text += "\n    " + compact(*ranked[i].line);
    if (ranked.size() > kNearestShown)
        text += "\n    (and " + std::to_string(ranked.size() - kNearestShown) + " more)";
    return text;
}

void send_own(std::unique_ptr<ac::Message> message)
{
    OwnSend own;
    ac::PostOffice::send_message(message.release());
}

}  // namespace

Script::Script(Output& output, Window& window, standin::Database& database,
               simulator::Turnstile* turnstile, std::ostream& errors)
    : output_(output), window_(window), database_(database), turnstile_(turnstile), errors_(errors)
{
}

void Script::run(std::istream& input)
{
    std::string line;
    int number = 0;
    while (std::getline(input, line))
        execute(line, ++number);
}

void Script::execute(const std::string& line, int number)
{
    const Outcome outcome = run_line(line, number);
    if (outcome.kind == Outcome::Kind::bad || outcome.kind == Outcome::Kind::refused)
        errors_ << "catra-terminal: " << where(number) << outcome.text << std::endl;
}

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

Script::Outcome Script::run_line(const std::string& line, int number)
{
    const Turn turn(*this);
    return run_locked(line, number);
}

Script::Outcome Script::run_posted(const std::string& line, std::chrono::milliseconds longest_wait,
                                   std::chrono::milliseconds script_wait)
{
    const Turn turn(*this, script_wait);
    if (!turn.owned()) {
        return {Outcome::Kind::busy, "the script is still running another line after " +
                                         std::to_string(script_wait.count()) + " ms; try again"};
    }
    longest_wait_ = longest_wait.count();
    Outcome outcome = run_locked(line, 0);
    longest_wait_ = kLongestWait;
    return outcome;
}

// REQUIRES: the line's turn taken
Script::Outcome Script::run_locked(const std::string& line, int number)
{
    const auto first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#')
        return {};
    Outcome outcome;
    try {
        const Json command = Json::parse(line);
        if (!command.is_object())
            throw CommandError("a command is one JSON object, not " +
                               std::string(command.type_name()));
        run_command(command);
        if (recorder_ != nullptr)
            recorder_->ran(command);
        return outcome;
    } catch (const Json::parse_error& e) {
        outcome = {Outcome::Kind::bad,
                   "not valid JSON (at character " + std::to_string(e.byte) + ")"};
    } catch (const Unmet& e) {
        // An unmet expectation is reported, and counted, where it is met or
        // not: the line itself ran.
        errors_ << "catra-terminal: " << where(number) << e.what() << std::endl;
        return {Outcome::Kind::unmet, e.what()};
    } catch (const Refused& e) {
        outcome = {Outcome::Kind::refused, e.what()};
    } catch (const std::exception& e) {
        outcome = {Outcome::Kind::bad, e.what()};
    }
    ++bad_lines_;
    return outcome;
}

void Script::set_source(const std::string& name)
{
    source_ = name;
}

void Script::set_recorder(Recorder* recorder)
{
    recorder_ = recorder;
}

void Script::refuse_actions(const std::string& reason)
{
    refusal_ = reason;
}

Script::Tally Script::tally() const
{
    return {expectations_, met_, bad_lines_, init_failure_expected_};
}

void Script::print_tally() const
{
    const Tally counted = tally();
    if (counted.expectations == 0 && counted.bad_lines == 0)
        return;
    errors_ << "catra-terminal: " << (source_.empty() ? "" : source_ + ": ") << counted.met
            << " of " << counted.expectations << " expectations met";
    if (counted.bad_lines > 0)
        errors_ << ", " << counted.bad_lines << (counted.bad_lines == 1 ? " line" : " lines")
                << " not run";
    errors_ << std::endl;
}

std::string Script::where(int number) const
{
    if (number == 0)
        return "posted line: ";
    if (source_.empty())
        return "line " + std::to_string(number) + ": ";
    return source_ + ":" + std::to_string(number) + ": ";
}

void Script::begin_action()
{
    if (recorder_ != nullptr)
        recorder_->before_action();
    window_.mark();
}

void Script::run_command(const Json& command)
{
    static const std::vector<CommandKind> kinds = {
        {"send", {"fields"}, &Script::send, true},
        {"request", {"fields"}, &Script::request, true},
        {"config", {}, &Script::config, true},
        {"gpio", {"value"}, &Script::gpio, true},
        {"controller", {}, &Script::controller, true},
        {"person", {}, &Script::person, true},
        {"wait_ms", {}, &Script::wait_ms},
        {"dump", {}, &Script::dump},
        {"wait_for", {"timeout_ms"}, &Script::wait_for},
        {"note", {}, &Script::note},
        {"expect", {"timeout_ms"}, &Script::expect},
        {"expect_none", {"for_ms"}, &Script::expect_none},
    };
    if (command.empty())
        throw CommandError("an empty object: no command");

    const CommandKind* kind = nullptr;
    for (const auto& member : command.items()) {
        for (const CommandKind& candidate : kinds) {
            if (member.key() != candidate.name)
                continue;
            if (kind != nullptr) {
                throw CommandError("two commands in one line: " + quoted(kind->name) + " and " +
                                   quoted(candidate.name));
            }
            kind = &candidate;
        }
    }
    if (kind == nullptr)
        throw CommandError("unknown command " + quoted(command.begin().key()));
    for (const auto& member : command.items()) {
        if (member.key() == kind->name)
            continue;
        bool allowed = false;
        for (const std::string& option : kind->options)
            allowed = allowed || option == member.key();
        if (!allowed) {
            throw CommandError("unexpected key " + quoted(member.key()) + " in a " +
                               quoted(kind->name) + " command");
        }
    }

    if (kind->action && !refusal_.empty())
        throw Refused(quoted(kind->name) + " is not run: " + refusal_);
    (this->*kind->run)(command);
}

void Script::send(const Json& command)
{
    std::unique_ptr<ac::Message> message = new_message(message_type(command, "send"), command);
    begin_action();
    send_own(std::move(message));
}

void Script::request(const Json& command)
{
    const std::string type = message_type(command, "request");
    std::unique_ptr<ac::Message> message = new_message(type, command);
    begin_action();
    const std::chrono::milliseconds timeout{
        std::min<long long>(kRequestTimeout.count(), longest_wait_)};
    const std::optional<Reply> reply = ask(std::move(message), timeout);
    if (!reply) {
        throw CommandError("request " + quoted(type) + ": no answer within " +
                           std::to_string(timeout.count()) + " ms");
    }
    Json line;
    line["reply"] = type;
    line["replied"] = reply->replied;
    line["fields"] = reply->fields;
    output_.emit(line);
}

void Script::config(const Json& command)
{
    const Json& change = command.at("config");
    if (!change.is_object())
        throw CommandError("\"config\" must be an object with \"module\", \"key\" and \"value\"");
    std::string module;
    std::string key;
    std::string value;
    bool has_key = false;
    bool has_value = false;
    for (const auto& member : change.items()) {
        if (member.key() == "module") {
            module = text_value(member.value(), "\"module\"");
        } else if (member.key() == "key") {
            key = text_value(member.value(), "\"key\"");
            has_key = true;
        } else if (member.key() == "value") {
            if (member.value().is_number_integer())
                value = member.value().dump();
            else
                value = text_value(member.value(), "\"value\"");
            has_value = true;
        } else {
            throw CommandError("unexpected key " + quoted(member.key()) + " in \"config\"");
        }
    }
    if (!has_key || key.empty())
        throw CommandError("\"config\" needs a \"key\"");
    if (!has_value)
        throw CommandError("\"config\" needs a \"value\"");

    begin_action();
    standin::Config::instance().set(module, key, value);
    auto message = std::make_unique<ac::Message>("config_param_set", 0, nullptr);
    message->add_string("module", module);
    message->add_string("param", key);
    message->add_string("value", value);
    send_own(std::move(message));
}

void Script::gpio(const Json& command)
{
    const int gpio = int_value(command.at("gpio"), "\"gpio\"");
    const auto value = command.find("value");
    if (value == command.end())
        throw CommandError("\"gpio\" needs a \"value\"");
    auto message = std::make_unique<ac::Message>("gpio_notified", 0, nullptr);
    message->add_int("gpio", gpio);
    message->add_int("value", int_value(*value, "\"value\""));
    begin_action();
    send_own(std::move(message));
}

void Script::controller(const Json& command)
{
    const std::string letters = text_value(command.at("controller"), "\"controller\"");
    if (letters.empty() || letters.find('\0') != std::string::npos)
        throw CommandError("\"controller\" needs one or more letters");
    simulator::Turnstile& reporter = turnstile("controller");
    begin_action();
    reporter.report(letters);
}

void Script::person(const Json& command)
{
    const std::string action = text_value(command.at("person"), "\"person\"");
    simulator::Side side{};
    if (action == "turn_left") {
        side = simulator::Side::left;
    } else if (action == "turn_right") {
        side = simulator::Side::right;
    } else {
        throw CommandError("\"person\" must be \"turn_left\" or \"turn_right\", not " +
                           quoted(action));
    }
    simulator::Turnstile& pushed = turnstile("person");
    begin_action();
    pushed.push(side);
}

void Script::wait_ms(const Json& command)
{
    const long long ms = whole_number(command.at("wait_ms"), "\"wait_ms\"", 0, longest_wait_);
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

void Script::dump(const Json& command)
{
    const std::string what = text_value(command.at("dump"), "\"dump\"");
    if (!is_dump_name(what)) {
        throw CommandError("no records called " + quoted(what) +
                           " (access_events, access_logs, counters, exit_requests, portals)");
    }
    Json line;
    line["dump"] = what;
    line["rows"] = dump_records(database_, what);
    output_.emit(line);
}

void Script::wait_for(const Json& command)
{
    const Json& pattern = pattern_of(command, "wait_for");
    const std::chrono::milliseconds timeout{
        milliseconds(command, "timeout_ms", kDefaultWaitFor.count(), longest_wait_)};
    if (!window_.wait_for(pattern, timeout)) {
        throw CommandError("wait_for " + compact(pattern) + ": no such line within " +
                           std::to_string(timeout.count()) + " ms");
    }
}

void Script::expect(const Json& command)
{
    const Json& pattern = pattern_of(command, "expect");
    const std::chrono::milliseconds timeout{
        milliseconds(command, "timeout_ms", kDefaultWaitFor.count(), longest_wait_)};
    ++expectations_;
    Json found;
    if (!window_.wait_for(pattern, timeout, &found)) {
        throw Unmet("expect " + compact(pattern) + ": no such line within " +
                    std::to_string(timeout.count()) + " ms" +
                    nearest_lines(window_.since_mark(), pattern));
    }
    ++met_;
    if (found.is_object() && found.contains("init_failed"))
        init_failure_expected_ = true;
}

void Script::expect_none(const Json& command)
{
    const Json& pattern = pattern_of(command, "expect_none");
    const std::chrono::milliseconds span{
        milliseconds(command, "for_ms", kDefaultExpectNone.count(), longest_wait_)};
    ++expectations_;
    Json found;
    if (window_.wait_for(pattern, span, &found)) {
        throw Unmet("expect_none " + compact(pattern) + ": printed within " +
                    std::to_string(span.count()) + " ms since the last action:\n    " +
                    compact(found));
    }
    ++met_;
}

void Script::note(const Json& command)
{
    Json line;
    line["note"] = text_value(command.at("note"), "\"note\"");
    output_.emit(line);
}

simulator::Turnstile& Script::turnstile(const char* command)
{
    if (turnstile_ == nullptr) {
        throw Refused(quoted(command) +
                      " needs the simulated controller, but \"device_path\" names a device");
    }
    return *turnstile_;
}

}  // namespace terminal
