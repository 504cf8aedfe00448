// The scenario file: its heading, the configuration line written relative to
// the scenario's folder, and that line read back among the top comments only.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <unistd.h>

#include "scenario/scenario_file.h"

namespace {

namespace fs = std::filesystem;

class ScenarioFile : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directories(folder / "sub"); }
    void TearDown() override { fs::remove_all(folder); }
    std::string text_of(const fs::path& path) const
    {
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }
    const fs::path folder =
        fs::temp_directory_path() / ("scenario-file-" + std::to_string(getpid()));
};

TEST_F(ScenarioFile, AWrittenScenarioNamesItsConfigurationFromItsFolder)
{
    const fs::path scenario = folder / "sub" / "s.jsonl";
    terminal::ScenarioWriter writer(scenario, {"one", "two"}, (folder / "t.ini").string());
    writer.write(lines::note_line("x"));
    EXPECT_EQ(text_of(scenario), "# one\n# two\n# config: ../t.ini\n{\"note\":\"x\"}\n");
    EXPECT_EQ(terminal::scenario_config(scenario), (folder / "sub" / "../t.ini").string());
}

TEST_F(ScenarioFile, TheConfigurationIsReadFromTheCommentsAtTheTop)
{
    const std::pair<const char*, std::string> rows[] = {
        {"# config: a.ini\n", (folder / "a.ini").string()},
        {"\n \t#\tconfig:  a b.ini \r\n", (folder / "a b.ini").string()},
        {"# a comment\n# config:\n# config: b.ini\n", (folder / "b.ini").string()},
        {"# config: /etc/c.ini\n", "/etc/c.ini"},
        {"# configuration: a.ini\n", ""},
        {"{\"note\": \"x\"}\n# config: a.ini\n", ""},
    };
    for (const auto& [text, config] : rows) {
        std::ofstream(folder / "s.jsonl") << text;
        EXPECT_EQ(terminal::scenario_config((folder / "s.jsonl").string()), config) << text;
    }
    EXPECT_EQ(terminal::scenario_config((folder / "missing.jsonl").string()), "");
}

}  // namespace
