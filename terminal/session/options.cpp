#include "session/options.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <system_error>

#include "live/guard.h"
#include "scenario/session_result.h"

#ifndef CATRA_DEFAULT_PLUGIN
#define CATRA_DEFAULT_PLUGIN "libcatra.so"
#endif
#ifndef CATRA_INSTALLED_PLUGIN
#define CATRA_INSTALLED_PLUGIN "../lib/catra/libcatra.so"
#endif
#ifndef CATRA_VERSION
#define CATRA_VERSION "unknown"
#endif

namespace terminal {

namespace {

// The installed plug-in, found from the program's own folder (absolute when
// the plug-in folder was set absolute); the plug-in of the build that made
// this program when there is none, as in a build tree.
std::string default_plugin()
{
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    if (!error) {
        const fs::path installed =
            (program.parent_path() / CATRA_INSTALLED_PLUGIN).lexically_normal();
        if (fs::is_regular_file(installed, error))
            return installed.string();
    }
    return CATRA_DEFAULT_PLUGIN;
}

}  // namespace

std::optional<int> parse_options(const std::string& program, int argc, char** argv,
                                 Options& options)
{
    CLI::App app{
        "The stand-in terminal: loads the turnstile plug-in as the terminal's host does and runs "
        "it against a simulated turnstile controller, driven by JSON commands, one per line."};
    app.set_version_flag("--version", program + " " + CATRA_VERSION);
    app.add_option("--config", options.config,
                   "INI file: one section per configuration module, [host] for the host's own "
                   "settings, keys before any section without a module")
        ->check(CLI::ExistingFile);
    app.add_option("--plugin", options.plugin,
                   "the plug-in library (default: " CATRA_INSTALLED_PLUGIN
                   " from the program's folder when installed, else the plug-in of its build)");
    CLI::Option* db =
        app.add_option("--db", options.db, "SQLite database file (default: in memory)");
    CLI::Option* script =
        app.add_option("--script", options.script, "commands to run (default: standard input)")
            ->check(CLI::ExistingFile);
    app.add_flag("--json", options.json,
                 "print one JSON object per line (the default when standard output is not a "
                 "terminal)");
    CLI::Option* record =
        app.add_option("--record", options.record,
                       "write the session as a scenario: each command that ran and, after each "
                       "action, the expectations for what the plug-in did");
    // The scenarios are positional, so that options may come before or after
    // them: "--check -j 2 a.jsonl" and "--check a.jsonl -j 2" alike.
    bool check = false;
    app.add_flag("--check", check,
                 "check the SCENARIO files, each in a fresh terminal of its own; the "
                 "configuration is --config or the scenario's \"# config: PATH\" line")
        ->excludes(script)
        ->excludes(record)
        ->excludes(db);
    std::string keys;
    for (const std::string& key : session_result_keys())
        keys += (keys.empty() ? "" : ", ") + key;
    app.add_option("--result", options.result,
                   "at the end, write the session's result to this file as one JSON object (" +
                       keys + "): what --check reads")
        ->excludes("--check");
    app.add_option("scenarios", options.check, "the scenario files that --check checks")
        ->type_name("SCENARIO...");
    app.add_option("-j,--jobs", options.jobs, "scenarios checked at once")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    app.add_option("--junit", options.junit, "write the check's JUnit XML report to this file");
    CLI::Option* http =
        app.add_option("--http", options.http,
                       "serve the live view there (address 127.0.0.1 unless given; "
                       "port 0: any free one) and run until interrupted")
            ->type_name("[ADDR:]PORT")
            ->check([](const std::string& text) { return http_address_error(text); });
    app.add_option("--http-token", options.http_token,
                   "the secret that every request to a live view off loopback must carry "
                   "(default: a new random one; the printed address carries it)")
        ->type_name("SECRET")
        ->check([](const std::string& text) { return http_token_error(text); })
        ->needs(http);
    try {
        app.parse(argc, argv);
        if (check && options.check.empty())
            throw CLI::ValidationError("--check", "needs one or more scenario files");
        if (!check && !options.check.empty())
            throw CLI::ValidationError(options.check.front(),
                                       "scenario files are checked with --check");
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    if (options.plugin.empty())
        options.plugin = default_plugin();
    return std::nullopt;
}

}  // namespace terminal
