#include "lines/command.h"

#include <algorithm>
#include <climits>

namespace lines {

namespace {

constexpr std::chrono::milliseconds kDefaultWaitFor{5000};
constexpr std::chrono::milliseconds kDefaultExpectNone{1000};

// What each verb allows beside its own key, and whether it acts.
struct VerbRule {
    Verb verb;
    std::string name;
    std::vector<std::string> options;
    bool acts;
};

const std::vector<VerbRule>& rules()
{
    static const std::vector<VerbRule> table = {
        {Verb::send, "send", {"fields"}, true},
        {Verb::request, "request", {"fields"}, true},
        {Verb::config, "config", {}, true},
        {Verb::gpio, "gpio", {"value"}, true},
        {Verb::controller, "controller", {}, true},
        {Verb::person, "person", {}, true},
        {Verb::wait_ms, "wait_ms", {}, false},
        {Verb::dump, "dump", {}, false},
        {Verb::wait_for, "wait_for", {"timeout_ms"}, false},
        {Verb::note, "note", {}, false},
        {Verb::expect, "expect", {"timeout_ms"}, false},
        {Verb::expect_none, "expect_none", {"for_ms"}, false},
    };
    return table;
}

const VerbRule& rule_of(Verb verb)
{
    return rules().at(static_cast<std::size_t>(verb));
}

std::string quoted(const std::string& text)
{
    return compact(Json(text));
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

// Reads the values of one command object, whose keys are checked.
class Reader {
public:
    Reader(const Json& command, const VerbRule& rule, const Grammar& grammar)
        : command_(command), rule_(rule), grammar_(grammar)
    {
    }

    Command read() const
    {
        Command result;
        result.verb = rule_.verb;
        result.given = command_;
        switch (rule_.verb) {
            case Verb::send:
            case Verb::request: result.arguments = message(); break;
            case Verb::config: result.arguments = config(); break;
            case Verb::gpio: result.arguments = gpio(); break;
            case Verb::controller: result.arguments = letters(); break;
            case Verb::person: result.arguments = turn(); break;
            case Verb::wait_ms:
                result.arguments =
                    Pause{std::chrono::milliseconds(whole_number(own(), own_name(), 0, longest()))};
                break;
            case Verb::dump: result.arguments = Records{text_value(own(), own_name())}; break;
            case Verb::wait_for:
            case Verb::expect: result.arguments = look("timeout_ms", kDefaultWaitFor); break;
            case Verb::expect_none: result.arguments = look("for_ms", kDefaultExpectNone); break;
            case Verb::note: result.arguments = Note{text_value(own(), own_name())}; break;
        }
        return result;
    }

private:
    const Json& own() const { return command_.at(rule_.name); }
    std::string own_name() const { return quoted(rule_.name); }
    long long longest() const { return grammar_.longest_wait.count(); }

    Message message() const
    {
        Message message;
        message.type = text_value(own(), own_name());
        if (message.type.empty())
            throw CommandError(own_name() + " needs a message type");
        const auto fields = command_.find("fields");
        if (fields == command_.end())
            return message;
        if (!fields->is_object())
            throw CommandError("\"fields\" must be an object");
        for (const auto& field : fields->items()) {
            const std::string what = "field " + quoted(field.key());
            if (field.value().is_string()) {
                message.fields.push_back({field.key(), field.value().get<std::string>()});
            } else if (field.value().is_number_integer()) {
                message.fields.push_back({field.key(), int_value(field.value(), what)});
            } else {
                throw CommandError(what + " must be a whole number or a text");
            }
        }
        return message;
    }

    ConfigChange config() const
    {
        const Json& change = own();
        if (!change.is_object())
            throw CommandError(
                "\"config\" must be an object with \"module\", \"key\" and \"value\"");
        ConfigChange config;
        bool has_key = false;
        bool has_value = false;
        for (const auto& member : change.items()) {
            if (member.key() == "module") {
                config.module = text_value(member.value(), "\"module\"");
            } else if (member.key() == "key") {
                config.key = text_value(member.value(), "\"key\"");
                has_key = true;
            } else if (member.key() == "value") {
                if (member.value().is_number_integer())
                    config.value = member.value().dump();
                else
                    config.value = text_value(member.value(), "\"value\"");
                has_value = true;
            } else {
                throw CommandError("unexpected key " + quoted(member.key()) + " in \"config\"");
            }
        }
        if (!has_key || config.key.empty())
            throw CommandError("\"config\" needs a \"key\"");
        if (!has_value)
            throw CommandError("\"config\" needs a \"value\"");
        return config;
    }

    GpioChange gpio() const
    {
        GpioChange change;
        change.gpio = int_value(own(), own_name());
        const auto value = command_.find("value");
        if (value == command_.end())
            throw CommandError("\"gpio\" needs a \"value\"");
        change.value = int_value(*value, "\"value\"");
        return change;
    }

    Letters letters() const
    {
        const std::string letters = text_value(own(), own_name());
        if (letters.empty() || letters.find('\0') != std::string::npos)
            throw CommandError("\"controller\" needs one or more letters");
        return Letters{letters};
    }

    Turn turn() const
    {
        const std::string name = text_value(own(), own_name());
        const std::optional<simulator::Side> side = simulator::side_of_turn(name);
        if (!side) {
            throw CommandError("\"person\" must be " +
                               quoted(std::string(simulator::turn_name(simulator::Side::left))) +
                               " or " +
                               quoted(std::string(simulator::turn_name(simulator::Side::right))) +
                               ", not " + quoted(name));
        }
        return Turn{*side};
    }

    Look look(const char* time_key, std::chrono::milliseconds otherwise) const
    {
        const Json& pattern = own();
        if (!pattern.is_object() || pattern.empty()) {
            throw CommandError(own_name() +
                               " needs an object with the keys and values to look for");
        }
        Look look{pattern,
                  std::chrono::milliseconds(std::min<long long>(otherwise.count(), longest()))};
        const auto given = command_.find(time_key);
        if (given != command_.end())
            look.time =
                std::chrono::milliseconds(whole_number(*given, quoted(time_key), 0, longest()));
        return look;
    }

    const Json& command_;
    const VerbRule& rule_;
    const Grammar& grammar_;
};

bool takes(const Grammar& grammar, Verb verb)
{
    return grammar.verbs.empty() ||
           std::find(grammar.verbs.begin(), grammar.verbs.end(), verb) != grammar.verbs.end();
}

std::string unknown(const std::string& key, const Grammar& grammar)
{
    std::string text = "unknown command " + quoted(key);
    if (grammar.verbs.empty())
        return text;
    text += ": " + grammar.taker + " takes ";
    for (std::size_t i = 0; i < grammar.verbs.size(); ++i) {
        if (i > 0)
            text += i + 1 == grammar.verbs.size() ? " and " : ", ";
        text += quoted(name_of(grammar.verbs[i]));
    }
    return text;
}

}  // namespace

const std::string& name_of(Verb verb)
{
    return rule_of(verb).name;
}

bool acts(Verb verb)
{
    return rule_of(verb).acts;
}

Grammar::Grammar(std::vector<Verb> verbs, std::string taker)
    : verbs(std::move(verbs)), taker(std::move(taker))
{
}

std::optional<Command> parse_command(const std::string& line, const Grammar& grammar)
{
    const auto first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#')
        return std::nullopt;
    Json command;
    try {
        command = Json::parse(line);
    } catch (const Json::parse_error& e) {
        throw CommandError("not valid JSON (at character " + std::to_string(e.byte) + ")");
    } catch (const Json::out_of_range&) {
        throw CommandError("not valid JSON: a number out of range");
    }
    if (!command.is_object())
        throw CommandError("a command is one JSON object, not " + std::string(command.type_name()));
    if (command.empty())
        throw CommandError("an empty object: no command");

    const VerbRule* rule = nullptr;
    for (const auto& member : command.items()) {
        for (const VerbRule& candidate : rules()) {
            if (member.key() != candidate.name || !takes(grammar, candidate.verb))
                continue;
            if (rule != nullptr) {
                throw CommandError("two commands in one line: " + quoted(rule->name) + " and " +
                                   quoted(candidate.name));
            }
            rule = &candidate;
        }
    }
    if (rule == nullptr)
        throw CommandError(unknown(command.begin().key(), grammar));
    for (const auto& member : command.items()) {
        if (member.key() == rule->name)
            continue;
        if (std::find(rule->options.begin(), rule->options.end(), member.key()) ==
            rule->options.end()) {
            throw CommandError("unexpected key " + quoted(member.key()) + " in a " +
                               quoted(rule->name) + " command");
        }
    }
    return Reader(command, *rule, grammar).read();
}

Json turn_command(simulator::Side side)
{
    Json command;
    command[name_of(Verb::person)] = std::string(simulator::turn_name(side));
    return command;
}

}  // namespace lines
