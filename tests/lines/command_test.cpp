// The command parser: the values a line gives its command, and the error of
// each bad line (the table bad_lines.tsv).
#include <gtest/gtest.h>

#include <fstream>

#include "lines/command.h"

namespace {

using lines::Verb;
using std::chrono::milliseconds;

lines::Command parsed(const std::string& line, const lines::Grammar& grammar = {})
{
    std::optional<lines::Command> command = lines::parse_command(line, grammar);
    EXPECT_TRUE(command && command->given == lines::Json::parse(line)) << line;
    return command.value_or(lines::Command{});
}

std::string error_of(const std::string& line, const lines::Grammar& grammar = {})
{
    try {
        lines::parse_command(line, grammar);
    } catch (const lines::CommandError& e) {
        return e.what();
    }
    return "(none)";
}

// The rest of what a line gives its command is what the scenarios run.
TEST(Command, AWaitTakesItsTimeOrItsDefault)
{
    const std::pair<const char*, milliseconds> waits[] = {
        {R"({"wait_for": {"a": 1}})", milliseconds(5000)},
        {R"({"expect": {"a": 1}, "timeout_ms": 3600000})", milliseconds(3600000)},
        {R"({"expect_none": {"a": 1}})", milliseconds(1000)},
    };
    for (const auto& [line, time] : waits)
        EXPECT_EQ(std::get<lines::Look>(parsed(line).arguments).time, time) << line;
    EXPECT_EQ(parsed(R"({"request": "x", "fields": {"a": 1}})").verb, lines::Verb::request);
    EXPECT_EQ(lines::parse_command("  # {\"send\": 5}"), std::nullopt);
}

TEST(Command, EachBadLineGetsItsError)
{
    std::ifstream table(BAD_LINES);
    int rows = 0;
    for (std::string row; std::getline(table, row);) {
        const auto tab = row.find('\t');
        if (row.empty() || row[0] == '#' || tab == std::string::npos)
            continue;
        ++rows;
        EXPECT_EQ(error_of(row.substr(0, tab)), row.substr(tab + 1));
    }
    EXPECT_GT(rows, 40);
}

TEST(Command, AGrammarTakesItsVerbsAndItsLongestWait)
{
    const lines::Grammar simulator({Verb::person, Verb::controller}, "the simulator");
    EXPECT_EQ(error_of(R"({"send": "x"})", simulator),
              R"(unknown command "send": the simulator takes "person" and "controller")");
    EXPECT_EQ(error_of(R"({"send": "x", "controller": "a"})", simulator),
              R"(unexpected key "send" in a "controller" command)");
    EXPECT_EQ(error_of(R"({"x": 1})", {{Verb::dump, Verb::note, Verb::gpio}, "it"}),
              R"(unknown command "x": it takes "dump", "note" and "gpio")");
    lines::Grammar posted;
    posted.longest_wait = milliseconds(700);
    EXPECT_EQ(error_of(R"({"wait_ms": 701})", posted), R"("wait_ms" must be at most 700)");
    EXPECT_EQ(std::get<lines::Look>(parsed(R"({"wait_for": {"a": 1}})", posted).arguments).time,
              milliseconds(700));
}

}  // namespace
