// catra-terminal: the stand-in terminal. Loads the turnstile plug-in the way
// the terminal's host framework does (dlopen, init, run on a thread of its
// own), serves it with the stand-in host's bus, configuration store and
// database, puts a simulated turnstile controller on a pseudo-terminal unless
// the configuration names a controller device, and runs the commands of a
// script or of standard input, printing everything that happens. With
// --check it checks scenarios instead, each in a terminal of its own.
#include <malloc.h>

#include <csignal>
#include <filesystem>
#include <iostream>

#include "check/check.h"
#include "lines/messages.h"
#include "session/options.h"
#include "session/session.h"
#include "standin/plugin_host.h"

namespace {

// catra-terminal itself, to run each scenario of a check in a process of its own.
std::string own_program(const char* argv0)
{
    std::error_code failed;
    const auto path = std::filesystem::read_symlink("/proc/self/exe", failed);
    return failed ? std::string(argv0) : path.string();
}

}  // namespace

int main(int argc, char** argv)
{
    // A reader that goes away (a page, a pipe) must not end the terminal.
    std::signal(SIGPIPE, SIG_IGN);
    // The live view serves each connection on a thread of its own, and a
    // posted line runs on it: with an allocation arena per thread, each would
    // keep what one large dump took. Two arenas bound what is kept.
    mallopt(M_ARENA_MAX, 2);  // NOLINT(concurrency-mt-unsafe): before any thread starts
    const lines::Messages messages("catra-terminal");
    terminal::Options options;
    if (const auto code = terminal::parse_options(messages.program(), argc, argv, options))
        return *code;
    if (!options.check.empty()) {
        return terminal::run_checks({own_program(argv[0]), options.plugin, options.config,
                                     options.check, options.jobs, options.junit},
                                    std::cout, messages);
    }
    terminal::Session session(options, messages);
    // The plug-in's threads never end: the process ends without running
    // static destructors under them.
    standin::end_process(session.play());
}
