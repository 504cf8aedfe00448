// The JUnit report: the document for passed and failed scenarios, and XML
// text from any bytes.
#include <gtest/gtest.h>

#include <regex>

#include "check/junit.h"

namespace {

TEST(Junit, TextIsEscapedAndBytesThatAreNotUtf8Replaced)
{
    const std::string bad = "\xef\xbf\xbd";
    const std::pair<std::string, std::string> rows[] = {
        {"a<b>&\"c\"'", "a&lt;b&gt;&amp;\"c\"'"},
        {"\x01\x1f\t\n\r\x7f", "??\t\n\r\x7f"},
        {"\xc2\xa9\xe0\xa4\x85\xf0\x9f\x98\x80", "\xc2\xa9\xe0\xa4\x85\xf0\x9f\x98\x80"},
        {"\xc0\xaf<", bad + bad + "&lt;"},
        {"\xe2\x82", bad + bad},
        {"\xf5\x80\x80\x80", bad + bad + bad + bad},
    };
    for (const auto& [text, escaped] : rows)
        EXPECT_EQ(terminal::xml_text(text), escaped) << text;
    EXPECT_EQ(terminal::xml_text("<\"&", true), "&lt;&quot;&amp;");
}

TEST(Junit, OneTestCasePerScenarioAFailureWithItsTallyAndReasons)
{
    std::vector<terminal::ScenarioOutcome> outcomes(3);
    outcomes[0] = {"examples/give-up.jsonl", true, 8, 8, 1.5, {"a note"}, "out", "err"};
    outcomes[1] = {
        "wrong.jsonl",       false,  2, 1, 0.25, {"w:2: expect {\"a\":\"<b>\"}", "second"},
        "{\"a\":\"<c>\"}\n", "x & y"};
    outcomes[2] = {"a/b/missing.jsonl", false, 0, 0, 0, {}, "", ""};
    const std::string report = terminal::junit_report("<suite>", outcomes, 2.0);
    const std::regex timestamp(R"( timestamp="\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d")");
    EXPECT_TRUE(std::regex_search(report, timestamp));
    EXPECT_EQ(std::regex_replace(report, timestamp, ""), R"(<?xml version="1.0" encoding="UTF-8"?>
<testsuites tests="3" failures="2" time="2.000">
  <testsuite name="&lt;suite&gt;" tests="3" failures="2" errors="0" skipped="0" time="2.000">
    <testcase classname="examples" name="give-up.jsonl" file="examples/give-up.jsonl" time="1.500"/>
    <testcase classname="." name="wrong.jsonl" file="wrong.jsonl" time="0.250">
      <failure message="1 of 2 expectations met: w:2: expect {&quot;a&quot;:&quot;&lt;b&gt;&quot;}">w:2: expect {"a":"&lt;b&gt;"}
second
</failure>
      <system-out>{"a":"&lt;c&gt;"}
</system-out>
      <system-err>x &amp; y</system-err>
    </testcase>
    <testcase classname="a/b" name="missing.jsonl" file="a/b/missing.jsonl" time="0.000">
      <failure message="0 of 0 expectations met"></failure>
      <system-out></system-out>
      <system-err></system-err>
    </testcase>
  </testsuite>
</testsuites>
)");
}

}  // namespace
