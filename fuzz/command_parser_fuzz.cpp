// Fuzz target: any bytes as one line of the terminal's commands
// (lines/command.h), as a script, standard input or the live view's POST
// /command feed the parser. For any line: the parser returns a command or
// nothing, or throws CommandError, and nothing else escapes; a command's
// `given` is the line's object; and the command written back as one JSON line
// (as a recording writes it) parses to the same command: the same verb and
// the same object, from which the parser alone makes the arguments.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "lines/command.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::optional<lines::Command> command;
    try {
        command = lines::parse_command(std::string(reinterpret_cast<const char*>(data), size));
    } catch (const lines::CommandError&) {
        return 0;
    }
    if (!command)
        return 0;
    if (!command->given.is_object())
        std::abort();
    const std::optional<lines::Command> again =
        lines::parse_command(lines::compact(command->given));
    if (!again || again->verb != command->verb || again->given != command->given)
        std::abort();
    return 0;
}
