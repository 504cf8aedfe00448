// The commands that catra-terminal and catra-simulator take: one JSON object
// per line, typed or from a script.
//
//   {"send": TYPE, "fields": {...}}      a message to the plug-in (numbers become
//                                        int fields, strings text fields, in order)
//   {"request": TYPE, "fields": {...}}   the same, synchronously with a reply
//                                        object; prints the reply
//   {"config": {"module": M, "key": K, "value": V}}
//                                        changes the configuration store and
//                                        announces "config_param_set" (module ""
//                                        or no "module": a module-less key)
//   {"gpio": N, "value": V}              announces "gpio_notified"
//   {"controller": "LETTERS"}            the controller reports those letters
//   {"person": "turn_left"|"turn_right"} a person pushes the turnstile
//   {"wait_ms": N}                       lets N ms of real time pass
//   {"dump": WHAT}                       prints records
//   {"wait_for": PATTERN, "timeout_ms": N}
//                                        waits (5000 ms unless told) until a
//                                        line containing PATTERN was printed
//                                        since the last action
//   {"note": TEXT}                       prints the text
//   {"expect": PATTERN, "timeout_ms": N} as wait_for, but a time-out is a
//                                        failed expectation
//   {"expect_none": PATTERN, "for_ms": N}
//                                        fails when a line containing PATTERN
//                                        is printed since the last action or
//                                        within N ms (1000 unless told)
//
// Blank lines and lines starting with # are no command. The parser checks a
// line whole, values included; every error text of a line is written here.
#pragma once

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "lines/line.h"
#include "simulator/protocol.h"

namespace lines {

enum class Verb {
    send,
    request,
    config,
    gpio,
    controller,
    person,
    wait_ms,
    dump,
    wait_for,
    note,
    expect,
    expect_none,
};

// The verb's name, the key of its lines ("send").
const std::string& name_of(Verb verb);
// Whether the verb acts on the plug-in or the turnstile (send, request,
// config, gpio, controller, person): an action starts a new stretch of
// output, which waits and expectations look at.
bool acts(Verb verb);

// A message field of a send or request command.
struct Field {
    std::string key;
    std::variant<int, std::string> value;
};

struct Message {  // send, request
    std::string type;
    std::vector<Field> fields;
};
struct ConfigChange {  // config
    std::string module;
    std::string key;
    std::string value;
};
struct GpioChange {  // gpio
    int gpio = 0;
    int value = 0;
};
struct Letters {  // controller
    std::string letters;
};
struct Turn {  // person
    simulator::Side side = simulator::Side::left;
};
struct Pause {  // wait_ms
    std::chrono::milliseconds time{0};
};
struct Records {  // dump
    std::string what;
};
struct Look {  // wait_for and expect: how long to wait; expect_none: how long to watch
    Json pattern;
    std::chrono::milliseconds time{0};
};
struct Note {  // note
    std::string text;
};

// Only a JSON value's destructor, which may allocate to take a deep value
// apart, could throw here (out of memory).
// NOLINTNEXTLINE(bugprone-exception-escape)
struct Command {
    Verb verb = Verb::note;
    std::variant<Message, ConfigChange, GpioChange, Letters, Turn, Pause, Records, Look, Note>
        arguments;
    Json given;  // the line's object, as given
};

// What a program takes.
struct Grammar {
    // Every command.
    Grammar() = default;
    // Only these; `taker` names the program in the error for any other ("the
    // simulator": unknown command "send": the simulator takes "person" and
    // "controller").
    Grammar(std::vector<Verb> verbs, std::string taker);

    std::vector<Verb> verbs;  // empty: every verb
    std::string taker;
    // The longest time a line may wait or watch; longer is an error.
    std::chrono::milliseconds longest_wait{3600LL * 1000};
};

// A line that is not a command, or a command that cannot run as written; its
// text says why.
struct CommandError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The command of one line; nothing for a blank or comment line. Throws
// CommandError for any other line that the grammar does not take.
std::optional<Command> parse_command(const std::string& line, const Grammar& grammar = {});

// The line of a person's turn on that side, as the parser takes it.
Json turn_command(simulator::Side side);

}  // namespace lines
