#include "check.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <mutex>
#include <regex>
#include <system_error>

#include <unistd.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "child_process.h"

namespace terminal {

namespace {

// Bound of one scenario; only reached when it hangs.
constexpr std::chrono::minutes kScenarioLimit{5};

struct Outcome {
    bool passed = false;
    int expectations = 0;
    int met = 0;
    double seconds = 0;
    std::vector<std::string> reasons;  // why it failed, as the terminal reported it
    std::string printed;               // what the terminal printed, for the report
};

using Json = nlohmann::json;

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
    // The result the child wrote; null when none (it did not end its session).
    Json read() const
    {
        std::ifstream file(path_);
        return Json::parse(file, nullptr, false);
    }

private:
    std::string path_;
};

std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    std::string line;
    while (std::getline(stream, line))
        lines.push_back(line);
    return lines;
}

Outcome check_one(const CheckOptions& options, const std::string& scenario)
{
    Outcome outcome;
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
    // The child's result comes back in a file of its own, as JSON.
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

    // What the terminal reported on its error stream: the reasons of a failure.
    for (const std::string& line : lines_of(run.err)) {
        const std::string prefix = "catra-terminal: ";
        outcome.reasons.push_back(line.rfind(prefix, 0) == 0 ? line.substr(prefix.size()) : line);
    }
    const Json result = result_file.read();
    const bool tallied = result.is_object();
    bool passed = false;
    if (tallied) {
        outcome.expectations = result.value("expectations", 0);
        outcome.met = result.value("met", 0);
        passed = result.value("passed", false) && result.value("bad_lines", 1) == 0;
    }
    if (run.timed_out) {
        outcome.reasons.push_back("did not end within " + std::to_string(kScenarioLimit.count()) +
                                  " minutes");
    } else if (run.exit_code != 0 && outcome.reasons.empty()) {
        outcome.reasons.push_back("the terminal ended with status " +
                                  std::to_string(run.exit_code));
    }
    if (run.exit_code == 0 && !tallied)
        outcome.reasons.push_back("the terminal wrote no result");
    else if (run.exit_code == 0 && outcome.expectations == 0)
        outcome.reasons.push_back("the scenario states no expectations");
    outcome.passed = run.exit_code == 0 && passed && outcome.expectations > 0;
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

// Text for an XML document (an attribute's value when `attribute`): markup
// characters escaped, control characters and bytes that are not UTF-8
// replaced.
std::string xml_text(const std::string& text, bool attribute = false)
{
    std::string escaped;
    for (std::size_t i = 0; i < text.size();) {
        const auto byte = static_cast<unsigned char>(text[i]);
        std::size_t length = byte < 0x80                   ? 1
                             : byte >= 0xf0 && byte < 0xf5 ? 4
                             : byte >= 0xe0                ? 3
                             : byte >= 0xc2 && byte < 0xe0 ? 2
                                                           : 0;
        for (std::size_t k = 1; k < length; ++k) {
            if (i + k >= text.size() || (static_cast<unsigned char>(text[i + k]) & 0xc0) != 0x80)
                length = 0;
        }
        if (length == 0) {
            escaped += "\xef\xbf\xbd";
            ++i;
            continue;
        }
        switch (byte) {
            case '&': escaped += "&amp;"; break;
            case '<': escaped += "&lt;"; break;
            case '>': escaped += "&gt;"; break;
            case '"': escaped += attribute ? "&quot;" : "\""; break;
            default:
                if (byte < 0x20 && byte != '\n' && byte != '\t' && byte != '\r')
                    escaped += '?';
                else
                    escaped.append(text, i, length);
        }
        i += length;
    }
    return escaped;
}

void write_junit(const std::string& path, const std::vector<std::string>& scenarios,
                 const std::vector<Outcome>& outcomes, double seconds)
{
    std::ofstream file(path, std::ios::trunc);
    const auto failures = std::count_if(outcomes.begin(), outcomes.end(),
                                        [](const Outcome& outcome) { return !outcome.passed; });
    const std::time_t now = std::time(nullptr);
    char timestamp[32] = "";
    std::tm utc{};
    ::gmtime_r(&now, &utc);
    std::strftime(timestamp, sizeof timestamp, "%Y-%m-%dT%H:%M:%S", &utc);
    file << std::fixed << std::setprecision(3)
         << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites tests=\"" << scenarios.size()
         << "\" failures=\"" << failures << "\" time=\"" << seconds
         << "\">\n  <testsuite name=\"catra-terminal scenarios\" tests=\"" << scenarios.size()
         << "\" failures=\"" << failures << "\" errors=\"0\" skipped=\"0\" time=\"" << seconds
         << "\" timestamp=\"" << timestamp << "\">\n";
    for (std::size_t i = 0; i < scenarios.size(); ++i) {
        const std::filesystem::path scenario(scenarios[i]);
        const Outcome& outcome = outcomes[i];
        std::string folder = scenario.parent_path().string();
        file << "    <testcase classname=\"" << xml_text(folder.empty() ? "." : folder, true)
             << "\" name=\"" << xml_text(scenario.filename().string(), true) << "\" file=\""
             << xml_text(scenarios[i], true) << "\" time=\"" << outcome.seconds << "\"";
        if (outcome.passed) {
            file << "/>\n";
            continue;
        }
        std::string reasons;
        for (const std::string& reason : outcome.reasons)
            reasons += reason + "\n";
        const std::string message = std::to_string(outcome.met) + " of " +
                                    std::to_string(outcome.expectations) + " expectations met" +
                                    (outcome.reasons.empty() ? "" : ": " + outcome.reasons[0]);
        file << ">\n      <failure message=\"" << xml_text(message, true) << "\">"
             << xml_text(reasons) << "</failure>\n      <system-out>" << xml_text(outcome.printed)
             << "</system-out>\n    </testcase>\n";
    }
    file << "  </testsuite>\n</testsuites>\n";
    if (!file.flush())
        throw std::runtime_error(path + ": cannot be written");
}

}  // namespace

std::string scenario_config(const std::string& scenario)
{
    std::ifstream file(scenario);
    std::string line;
    static const std::regex named(R"(^#\s*config:\s*(.*\S)\s*$)");
    while (std::getline(file, line)) {
        std::smatch found;
        if (std::regex_match(line, found, named)) {
            const std::filesystem::path config(found[1].str());
            if (config.is_absolute())
                return config.string();
            return (std::filesystem::path(scenario).parent_path() / config).string();
        }
        const auto first = line.find_first_not_of(" \t\r");
        if (first != std::string::npos && line[first] != '#')
            break;
    }
    return "";
}

int run_checks(const CheckOptions& options, std::ostream& out)
{
    const std::vector<std::string>& scenarios = options.scenarios;
    std::size_t width = 0;
    for (const std::string& scenario : scenarios)
        width = std::max(width, scenario.size());

    std::vector<Outcome> outcomes(scenarios.size());
    std::atomic<std::size_t> next{0};
    std::mutex printing;
    const auto started = std::chrono::steady_clock::now();
    const auto worker = [&] {
        for (std::size_t i = next++; i < scenarios.size(); i = next++) {
            Outcome outcome;
            try {
                outcome = check_one(options, scenarios[i]);
            } catch (const std::exception& e) {
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

    const auto failed = std::count_if(outcomes.begin(), outcomes.end(),
                                      [](const Outcome& outcome) { return !outcome.passed; });
    out << scenarios.size() << (scenarios.size() == 1 ? " scenario: " : " scenarios: ")
        << scenarios.size() - static_cast<std::size_t>(failed) << " passed, " << failed
        << " failed, in " << seconds_text(seconds) << std::endl;
    if (!options.junit.empty()) {
        try {
            write_junit(options.junit, scenarios, outcomes, seconds);
        } catch (const std::exception& e) {
            out.flush();
            std::fprintf(stderr, "catra-terminal: %s\n", e.what());
            return 1;
        }
    }
    return failed == 0 ? 0 : 1;
}

}  // namespace terminal
