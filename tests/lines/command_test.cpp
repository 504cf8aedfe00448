// The command parser: what each line becomes, and the error of each bad line
// (the table bad_lines.tsv).
#include <gtest/gtest.h>

#include <fstream>

#include "lines/command.h"

namespace {

using lines::Verb;

// What a command carries, on one line.
struct Described {
    std::string operator()(const lines::Message& m) const
    {
        std::string text = m.type;
        for (const lines::Field& f : m.fields) {
            const int* number = std::get_if<int>(&f.value);
            text += " " + f.key + "=" +
                    (number ? std::to_string(*number) : "'" + std::get<1>(f.value) + "'");
        }
        return text;
    }
    std::string operator()(const lines::ConfigChange& c) const
    {
        return c.module + "/" + c.key + "=" + c.value;
    }
    std::string operator()(const lines::GpioChange& g) const
    {
        return std::to_string(g.gpio) + "=" + std::to_string(g.value);
    }
    std::string operator()(const lines::Letters& l) const { return l.letters; }
    std::string operator()(const lines::Turn& t) const { return std::string(side_name(t.side)); }
    std::string operator()(const lines::Pause& p) const { return std::to_string(p.time.count()); }
    std::string operator()(const lines::Records& r) const { return r.what; }
    std::string operator()(const lines::Look& l) const
    {
        return lines::compact(l.pattern) + " " + std::to_string(l.time.count());
    }
    std::string operator()(const lines::Note& n) const { return n.text; }
};

std::string parsed(const std::string& line, const lines::Grammar& grammar = {})
{
    try {
        const std::optional<lines::Command> command = lines::parse_command(line, grammar);
        if (!command)
            return "(none)";
        EXPECT_EQ(command->given, lines::Json::parse(line));
        return lines::name_of(command->verb) + (lines::acts(command->verb) ? " acts " : " ") +
               std::visit(Described{}, command->arguments);
    } catch (const lines::CommandError& e) {
        return std::string("error: ") + e.what();
    }
}

TEST(Command, EachVerbTakesItsValues)
{
    const std::pair<std::string, std::string> rows[] = {
        {R"({"send": "liberate_catra", "fields": {"uuid": "u-1", "catra_reason": 1}})",
         "send acts liberate_catra uuid='u-1' catra_reason=1"},
        {R"({"request": "x", "fields": {"a": -2147483648, "b": 2147483647}})",
         "request acts x a=-2147483648 b=2147483647"},
        {R"({"config": {"key": "catra_timeout", "value": 5}})", "config acts /catra_timeout=5"},
        {R"({"config": {"value": "-1", "module": "catra", "key": "k"}})", "config acts catra/k=-1"},
        {R"({"gpio": 40, "value": -1})", "gpio acts 40=-1"},
        {R"({"controller": "azA"})", "controller acts azA"},
        {R"({"person": "turn_right"})", "person acts right"},
        {R"({"wait_ms": 0})", "wait_ms 0"},
        {R"({"dump": "counters"})", "dump counters"},
        {R"({"wait_for": {"bus": "x"}})", R"(wait_for {"bus":"x"} 5000)"},
        {R"({"expect": {"a": [1]}, "timeout_ms": 3600000})", R"(expect {"a":[1]} 3600000)"},
        {R"({"expect_none": {"controller": "ar"}})", R"(expect_none {"controller":"ar"} 1000)"},
        {R"({"note": ""})", "note "},
        {"  # {\"send\": 5}", "(none)"},
        {lines::compact(lines::turn_command(simulator::Side::left)), "person acts left"},
    };
    for (const auto& [line, command] : rows)
        EXPECT_EQ(parsed(line), command) << line;
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
        EXPECT_EQ(parsed(row.substr(0, tab)), "error: " + row.substr(tab + 1));
    }
    EXPECT_GT(rows, 40);
}

TEST(Command, AGrammarTakesItsVerbsAndItsLongestWait)
{
    const lines::Grammar simulator({Verb::person, Verb::controller}, "the simulator");
    EXPECT_EQ(parsed(R"({"send": "x"})", simulator),
              R"(error: unknown command "send": the simulator takes "person" and "controller")");
    EXPECT_EQ(parsed(R"({"send": "x", "controller": "a"})", simulator),
              R"(error: unexpected key "send" in a "controller" command)");
    EXPECT_EQ(parsed(R"({"x": 1})", {{Verb::dump, Verb::note, Verb::gpio}, "it"}),
              R"(error: unknown command "x": it takes "dump", "note" and "gpio")");
    lines::Grammar posted;
    posted.longest_wait = std::chrono::milliseconds(700);
    EXPECT_EQ(parsed(R"({"wait_ms": 701})", posted), R"(error: "wait_ms" must be at most 700)");
    EXPECT_EQ(parsed(R"({"expect": {"a": 1}, "timeout_ms": -1})", posted),
              R"(error: "timeout_ms" must be from 0 to 700)");
    EXPECT_EQ(parsed(R"({"wait_for": {"a": 1}})", posted), R"(wait_for {"a":1} 700)");
}

}  // namespace
