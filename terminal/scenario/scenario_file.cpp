#include "scenario/scenario_file.h"

#include <filesystem>
#include <stdexcept>

namespace terminal {

namespace {

const std::string kConfigLabel = "config:";

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

std::string trimmed(const std::string& text)
{
    std::size_t start = 0;
    std::size_t end = text.size();
    while (start < end && is_blank(text[start]))
        ++start;
    while (end > start && is_blank(text[end - 1]))
        --end;
    return text.substr(start, end - start);
}

}  // namespace

ScenarioWriter::ScenarioWriter(const std::string& path, const std::vector<std::string>& heading,
                               const std::string& config)
    : file_(path, std::ios::trunc)
{
    if (!file_)
        throw std::runtime_error(path + ": cannot be written");
    for (const std::string& comment : heading)
        file_ << "# " << comment << '\n';
    if (!config.empty()) {
        namespace fs = std::filesystem;
        std::error_code failed;
        const fs::path folder = fs::absolute(path, failed).parent_path();
        const fs::path relative = fs::relative(fs::absolute(config, failed), folder, failed);
        file_ << "# " << kConfigLabel << ' '
              << (failed || relative.empty() ? config : relative.string()) << '\n';
    }
    file_.flush();
}

void ScenarioWriter::write(const lines::Json& line)
{
    file_ << lines::compact(line) << '\n';
    file_.flush();
}

std::string scenario_config(const std::string& scenario)
{
    std::ifstream file(scenario);
    std::string line;
    while (std::getline(file, line)) {
        const std::string text = trimmed(line);
        if (text.empty())
            continue;
        if (text[0] != '#')
            break;
        const std::string comment = trimmed(text.substr(1));
        if (comment.compare(0, kConfigLabel.size(), kConfigLabel) != 0)
            continue;
        const std::filesystem::path config(trimmed(comment.substr(kConfigLabel.size())));
        if (config.empty())
            continue;
        if (config.is_absolute())
            return config.string();
        return (std::filesystem::path(scenario).parent_path() / config).string();
    }
    return "";
}

}  // namespace terminal
