#include "options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>

#include "line.h"
#include "lines/command.h"

#ifndef CATRA_VERSION
#define CATRA_VERSION "unknown"
#endif

namespace catra_simulator {

std::optional<int> parse_options(const std::string& program, int argc, char** argv,
                                 Options& options)
{
    using lines::compact;
    using simulator::Side;
    CLI::App app{
        "The simulated turnstile controller on a real line: answers the turnstile plug-in's "
        "controller commands on a serial device, or on a new pseudo-terminal, as a turnstile "
        "controller does; prints what crosses the line; takes a person's turns and the "
        "controller's letters on standard input, one JSON object per line: " +
        compact(lines::turn_command(Side::left)) + " or " +
        compact(lines::turn_command(Side::right)) + ", " +
        compact(lines::Json{{lines::name_of(lines::Verb::controller), "LETTERS"}}) +
        ". Ctrl-C or SIGTERM ends it; the end of standard input does not."};
    app.set_version_flag("--version", program + " " + CATRA_VERSION);
    CLI::Option* device = app.add_option("--device", options.device,
                                         "serial device wired to the terminal's controller port "
                                         "(default: a new pseudo-terminal, "
                                         "whose path is printed on standard error)")
                              ->type_name("PATH");
    app.add_option("--baud", options.baud, "speed of the serial device, 8N1")
        ->type_name("RATE")
        ->needs(device)
        ->check([](const std::string& text) {
            return supported_baud(std::atoi(text.c_str())) ? std::string()
                                                           : "no such serial speed: " + text;
        })
        ->capture_default_str();
    app.add_option("--link", options.link,
                   "make this path a symbolic link to the new pseudo-terminal, while running")
        ->type_name("PATH")
        ->excludes(device);
    app.add_option(
           "--byte-gap-ms", options.byte_gap_ms,
           "write each byte of an event (its letter, then its NUL) on its own, this many ms "
           "after the one before (on a new pseudo-terminal also not before the terminal "
           "has read that one)")
        ->type_name("N")
        ->check(CLI::Range(0, 10000))
        ->capture_default_str();
    app.add_flag("--json", options.json,
                 "print one JSON object per line (the default when standard output is not a "
                 "terminal)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    return std::nullopt;
}

}  // namespace catra_simulator
