#include "input.h"

#include <algorithm>

#include "output.h"

namespace simulator::program {

namespace {

using terminal::Json;

std::string quoted(const std::string& text)
{
    return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string text_value(const Json& command, const std::string& key)
{
    const Json& value = command.at(key);
    if (!value.is_string())
        throw InputError(quoted(key) + " must be a text");
    return value.get<std::string>();
}

}  // namespace

std::optional<Action> parse_action(const std::string& line)
{
    const auto first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#')
        return std::nullopt;
    Json command;
    try {
        command = Json::parse(line);
    } catch (const Json::parse_error& e) {
        throw InputError("not valid JSON (at character " + std::to_string(e.byte) + ")");
    }
    if (!command.is_object())
        throw InputError("a command is one JSON object, not " + std::string(command.type_name()));
    if (command.empty())
        throw InputError("an empty object: no command");
    const bool person = command.contains("person");
    const bool controller = command.contains("controller");
    if (person && controller)
        throw InputError("two commands in one line: \"person\" and \"controller\"");
    if (!person && !controller) {
        throw InputError("unknown command " + quoted(command.begin().key()) +
                         ": the simulator takes \"person\" and \"controller\"");
    }
    const std::string key = person ? "person" : "controller";
    const auto items = command.items();
    const auto other = std::find_if(items.begin(), items.end(),
                                    [&key](const auto& member) { return member.key() != key; });
    if (other != items.end()) {
        throw InputError("unexpected key " + quoted(other.key()) + " in a " + quoted(key) +
                         " command");
    }

    Action action;
    action.kind = person ? Action::Kind::person : Action::Kind::controller;
    const std::string value = text_value(command, key);
    if (controller) {
        if (value.empty() || value.find('\0') != std::string::npos)
            throw InputError("\"controller\" needs one or more letters");
        action.letters = value;
    } else if (value == "turn_left" || value == "turn_right") {
        action.side = value == "turn_left" ? Side::left : Side::right;
    } else {
        throw InputError("\"person\" must be \"turn_left\" or \"turn_right\", not " +
                         quoted(value));
    }
    return action;
}

}  // namespace simulator::program
