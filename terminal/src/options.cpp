#include "options.h"

#include <CLI/CLI.hpp>

#include "live_view.h"

#ifndef CATRA_DEFAULT_PLUGIN
#define CATRA_DEFAULT_PLUGIN "libcatra.so"
#endif

namespace terminal {

std::optional<int> parse_options(int argc, char** argv, Options& options)
{
    CLI::App app{
        "The stand-in terminal: loads the turnstile plug-in as the terminal's host does and runs "
        "it against a simulated turnstile controller, driven by JSON commands, one per line."};
    options.plugin = CATRA_DEFAULT_PLUGIN;
    app.add_option("--config", options.config,
                   "INI file: one section per configuration module, [host] for the host's own "
                   "settings, keys before any section without a module")
        ->check(CLI::ExistingFile);
    app.add_option("--plugin", options.plugin, "the plug-in library")->capture_default_str();
    app.add_option("--db", options.db, "SQLite database file (default: in memory)");
    app.add_option("--script", options.script, "commands to run (default: standard input)")
        ->check(CLI::ExistingFile);
    app.add_flag("--json", options.json,
                 "print one JSON object per line (the default when standard output is not a "
                 "terminal)");
    app.add_option("--http", options.http,
                   "serve the live view there (address 127.0.0.1 unless given; "
                   "port 0: any free one) and run until interrupted")
        ->type_name("[ADDR:]PORT")
        ->check([](const std::string& text) { return http_address_error(text); });
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    return std::nullopt;
}

}  // namespace terminal
