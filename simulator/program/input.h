// The lines typed (or piped) into catra-simulator: one JSON object per line,
// in the terminal's script language, of its two commands that act on the
// turnstile itself:
//   {"person": "turn_left" | "turn_right"}   a person pushes the turnstile
//   {"controller": "LETTERS"}                the controller reports those letters
// Blank lines and lines starting with # are skipped.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include "simulator/turnstile.h"

namespace simulator::program {

struct Action {
    enum class Kind { person, controller };
    Kind kind = Kind::person;
    Side side = Side::left;  // a person's push
    std::string letters;     // the controller's letters
};

// A line that cannot run; its text says why.
struct InputError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The action of one line; nothing for a blank or comment line. Throws
// InputError for any other line that is not one of the two commands.
std::optional<Action> parse_action(const std::string& line);

}  // namespace simulator::program
