#include "check/check.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <mutex>
#include <sstream>
#include <system_error>
#include <thread>

#include "check/child_process.h"
#include "check/junit.h"
#include "scenario/scenario_file.h"
#include "scenario/session_result.h"

namespace terminal {

namespace {

// Bound of one scenario; only reached when it hangs.
constexpr std::chrono::minutes kScenarioLimit{5};
// Of a terminal that wrote no result, the last lines of its error stream
// are shown with the failure.
constexpr std::size_t kLastWords = 5;

// A fresh empty file for a child's result, removed with this object.
class ResultFile {
public:
    ResultFile()
    {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "catra-check-XXXXXX").string();
        const int fd = ::mkstemp(pattern.data());
        if (fd < 0)
            throw std::system_error(errno, std::generic_category(), "a result file");
        ::close(fd);
        path_ = pattern;
    }
    ~ResultFile() { std::remove(path_.c_str()); }
    ResultFile(const ResultFile&) = delete;
    ResultFile& operator=(const ResultFile&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

std::vector<std::string> last_lines(const std::string& text, std::size_t count)
{
    std::vector<std::string> all;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        all.push_back(line);
    if (all.size() > count)
        all.erase(all.begin(), all.end() - static_cast<std::ptrdiff_t>(count));
    return all;
}

ScenarioOutcome check_one(const CheckOptions& options, const std::string& scenario)
{
    ScenarioOutcome outcome;
    outcome.scenario = scenario;
    if (!std::ifstream(scenario)) {
        outcome.reasons.push_back(scenario + ": cannot be read");
        return outcome;
    }
    std::vector<std::string> arguments{options.program, "--json", "--plugin", options.plugin};
    const std::string config = options.config.empty() ? scenario_config(scenario) : options.config;
    if (!config.empty()) {
        arguments.push_back("--config");
        arguments.push_back(config);
    }
    arguments.push_back("--script");
    arguments.push_back(scenario);
    const ResultFile result_file;
    arguments.push_back("--result");
    arguments.push_back(result_file.path());

    const auto started = std::chrono::steady_clock::now();
    ChildResult run;
    try {
        run = run_child(arguments, kScenarioLimit);
    } catch (const std::exception& e) {
        outcome.reasons.push_back(e.what());
        return outcome;
    }
    outcome.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    outcome.printed = run.out;
    outcome.errors = run.err;

    const std::optional<SessionResult> result = read_session_result(result_file.path());
    if (result) {
        outcome.expectations = result->expectations;
        outcome.met = result->met;
        outcome.reasons = result->reasons;
    }
    if (run.timed_out) {
        outcome.reasons.push_back("did not end within " + std::to_string(kScenarioLimit.count()) +
                                  " minutes");
    } else if (!result) {
        outcome.reasons.push_back("the terminal ended with status " +
                                  std::to_string(run.exit_code) +
                                  " and wrote no result; the last it printed on its error stream:");
        for (const std::string& line : last_lines(run.err, kLastWords))
            outcome.reasons.push_back("  " + line);
    } else if (run.exit_code != 0 && outcome.reasons.empty()) {
        outcome.reasons.push_back("the terminal ended with status " +
                                  std::to_string(run.exit_code));
    } else if (run.exit_code == 0 && result->expectations == 0) {
        outcome.reasons.push_back("the scenario states no expectations");
    }
    outcome.passed = run.exit_code == 0 && result && result->passed && result->bad_lines == 0 &&
                     result->expectations > 0;
    if (outcome.passed)
        outcome.reasons.clear();  // what remains are notes such as an expected init failure
    return outcome;
}

std::string seconds_text(double seconds)
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(2) << seconds << " s";
    return text.str();
}

}  // namespace

int run_checks(const CheckOptions& options, std::ostream& out, const lines::Messages& messages)
{
    const std::vector<std::string>& scenarios = options.scenarios;
    std::size_t width = 0;
    for (const std::string& scenario : scenarios)
        width = std::max(width, scenario.size());

    std::vector<ScenarioOutcome> outcomes(scenarios.size());
    std::atomic<std::size_t> next{0};
    std::mutex printing;
    const auto started = std::chrono::steady_clock::now();
    const auto worker = [&] {
        for (std::size_t i = next++; i < scenarios.size(); i = next++) {
            ScenarioOutcome outcome;
            try {
                outcome = check_one(options, scenarios[i]);
            } catch (const std::exception& e) {
                outcome.scenario = scenarios[i];
                outcome.reasons.push_back(e.what());
            }
            std::lock_guard<std::mutex> lock(printing);
            const std::string tally = std::to_string(outcome.met) + "/" +
                                      std::to_string(outcome.expectations) + " expectations";
            out << (outcome.passed ? "PASS  " : "FAIL  ") << std::left
                << std::setw(static_cast<int>(width)) << scenarios[i] << "  " << std::setw(19)
                << tally << std::right << std::setw(9) << seconds_text(outcome.seconds) << '\n';
            for (const std::string& reason : outcome.reasons)
                out << "      " << reason << '\n';
            out.flush();
            outcomes[i] = std::move(outcome);
        }
    };
    std::vector<std::thread> workers;
    const std::size_t count =
        std::min(scenarios.size(), static_cast<std::size_t>(std::max(options.jobs, 1)));
    for (std::size_t i = 0; i < count; ++i)
        workers.emplace_back(worker);
    for (std::thread& thread : workers)
        thread.join();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    const auto failed =
        std::count_if(outcomes.begin(), outcomes.end(),
                      [](const ScenarioOutcome& outcome) { return !outcome.passed; });
    out << scenarios.size() << (scenarios.size() == 1 ? " scenario: " : " scenarios: ")
        << scenarios.size() - static_cast<std::size_t>(failed) << " passed, " << failed
        << " failed, in " << seconds_text(seconds) << std::endl;
    if (!options.junit.empty()) {
        std::ofstream file(options.junit, std::ios::trunc);
        file << junit_report(messages.program() + " scenarios", outcomes, seconds);
        if (!file.flush()) {
            messages.say(options.junit + ": cannot be written");
            return 1;
        }
    }
    return failed == 0 ? 0 : 1;
}

}  // namespace terminal
