// The script runner without a plug-in: the lines that cannot run here,
// reported with where they stand; a failed expectation; a posted line's
// outcome, never counted, and what it tells while it runs; a line as long as
// the whole window.
#include <gtest/gtest.h>

#include <sstream>

#include "script/runner.h"

namespace {

using Kind = terminal::Script::Outcome::Kind;
using namespace std::chrono_literals;

struct Parts {
    std::FILE* printed = std::tmpfile();
    lines::Output output{printed, lines::Style::json};
    terminal::Window window{output};
    std::ostringstream said;
    lines::Messages messages{"t", said};
    ~Parts() { std::fclose(printed); }
};

// With a real controller device there is no simulated one to report or push.
TEST(Runner, ATurnstileLineWithoutTheSimulatorIsRefused)
{
    Parts parts;
    terminal::Script script({parts.output, parts.window, standin::Database::instance(), nullptr,
                             parts.messages, "s.jsonl"});
    std::istringstream input(R"({"controller": "a"}

{"note": "n"}
{"expect": {"note": "m"}, "timeout_ms": 0}
{"expect": {"note": "n"}})");
    script.run(input);
    const std::string device =
        " needs the simulated controller, but \"device_path\" names a device";
    EXPECT_EQ(parts.said.str(),
              "t: s.jsonl:1: \"controller\"" + device +
                  "\nt: s.jsonl:4: expect {\"note\":\"m\"}: no such line within 0 "
                  "ms; the nearest of the 1 line printed since the last action:\n"
                  "    {\"note\":\"n\"}\n");
    const std::pair<std::string, terminal::Script::Outcome> posted[] = {
        {R"({"person": "turn_right"})", {Kind::refused, "\"person\"" + device}},
        {R"({"expect": {"note": "m"}, "timeout_ms": 0})",
         {Kind::unmet,
          "expect {\"note\":\"m\"}: no such line within 0 ms; the nearest of the 1 line printed "
          "since the last action:\n    {\"note\":\"n\"}"}},
        {R"({"expect": {"note": "n"}})", {Kind::ran, ""}},
        {R"({"expect_none": {"note": "n"}, "for_ms": 0})",
         {Kind::unmet,
          "expect_none {\"note\":\"n\"}: printed within 0 ms since the last action:\n    "
          "{\"note\":\"n\"}"}},
    };
    for (const auto& [line, outcome] : posted) {
        const terminal::Script::Outcome got = script.run_posted(line, 2000ms, 0ms);
        EXPECT_EQ(std::make_pair(got.kind, got.text), std::make_pair(outcome.kind, outcome.text));
    }
    std::string running;
    parts.output.subscribe(
        [&](const lines::Json&, const std::string&) { running = script.running(); });
    script.run_posted(R"({"note": "p"})", 2000ms, 0ms);
    EXPECT_EQ(running, R"(posted line: {"note": "p"})");
    std::istringstream more("{\"expect\": {\"note\": \"n\"}}");
    script.run(more);  // the script's lines count again
    const terminal::Script::Tally tally = script.tally();
    EXPECT_EQ(std::make_tuple(tally.expectations, tally.met, tally.bad_lines,
                              tally.init_failure_expected),
              std::make_tuple(3, 2, 1, false));
    // 11 bytes of {"note":""} and the text: the line fills the window, and is kept.
    const lines::Json longest =
        lines::note_line(std::string(terminal::Window::kMostBytes - 11, 'x'));
    parts.output.emit(longest);
    EXPECT_TRUE(parts.window.wait_for(longest, 0ms));
}

}  // namespace
