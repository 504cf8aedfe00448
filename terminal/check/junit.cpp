#include "check/junit.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <iomanip>
#include <sstream>

namespace terminal {

std::string xml_text(const std::string& text, bool attribute)
{
    std::string escaped;
    for (std::size_t i = 0; i < text.size();) {
        const auto byte = static_cast<unsigned char>(text[i]);
        std::size_t length = byte < 0x80                   ? 1
                             : byte >= 0xf0 && byte < 0xf5 ? 4
                             : byte >= 0xe0 && byte < 0xf0 ? 3
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

std::string junit_report(const std::string& suite, const std::vector<ScenarioOutcome>& outcomes,
                         double seconds)
{
    std::ostringstream file;
    const auto failures =
        std::count_if(outcomes.begin(), outcomes.end(),
                      [](const ScenarioOutcome& outcome) { return !outcome.passed; });
    const std::time_t now = std::time(nullptr);
    char timestamp[32] = "";
    std::tm utc{};
    ::gmtime_r(&now, &utc);
    std::strftime(timestamp, sizeof timestamp, "%Y-%m-%dT%H:%M:%S", &utc);
    file << std::fixed << std::setprecision(3)
         << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites tests=\"" << outcomes.size()
         << "\" failures=\"" << failures << "\" time=\"" << seconds << "\">\n  <testsuite name=\""
         << xml_text(suite, true) << "\" tests=\"" << outcomes.size() << "\" failures=\""
         << failures << "\" errors=\"0\" skipped=\"0\" time=\"" << seconds << "\" timestamp=\""
         << timestamp << "\">\n";
    for (const ScenarioOutcome& outcome : outcomes) {
        const std::filesystem::path scenario(outcome.scenario);
        const std::string folder = scenario.parent_path().string();
        file << "    <testcase classname=\"" << xml_text(folder.empty() ? "." : folder, true)
             << "\" name=\"" << xml_text(scenario.filename().string(), true) << "\" file=\""
             << xml_text(outcome.scenario, true) << "\" time=\"" << outcome.seconds << "\"";
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
             << "</system-out>\n      <system-err>" << xml_text(outcome.errors)
             << "</system-err>\n    </testcase>\n";
    }
    file << "  </testsuite>\n</testsuites>\n";
    return file.str();
}

}  // namespace terminal
