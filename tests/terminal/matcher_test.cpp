// How waits and expectations match output lines, and the nearest lines a
// failed expectation shows.
#include <gtest/gtest.h>

#include "script/matcher.h"

namespace {

using terminal::Json;

TEST(Matcher, ALineContainsAPatternOrIsNearItByTheLeavesItHolds)
{
    const char* event = R"({"bus": "catra_event", "fields": [["event", 5], ["uuid", "u"]]})";
    const struct {
        const char *line, *pattern;
        bool contains;
        int nearness;
    } rows[] = {
        {event, R"({"bus": "catra_event", "fields": [["event", 5]]})", true, 3},
        {event, R"({"bus": "catra_event", "fields": [["event", 5], ["uuid", "v"]]})", false, 4},
        {event, R"({"fields": [["event", "5"]]})", false, 1},
        {R"({"a": 1})", R"({"a": "1"})", false, 0},
        {R"({"a": "1"})", R"({"a": 1})", false, 0},
        {R"({"a": 1})", "{}", true, 0},
        {R"({"a": [1, 2, 3]})", R"({"a": [3, 1]})", true, 2},
        {R"({"a": [1, 2]})", R"({"a": [1, 4]})", false, 1},
        {R"({"a": {"b": 1}})", R"({"a": {"b": 1, "c": 2}})", false, 1},
        {R"({"a": 1})", R"({"a": {"b": 1}})", false, 0},
        {R"({"a": {"0": 1}})", R"({"a": [1]})", false, 0},
        {"[1]", R"({"a": 1})", false, 0},
    };
    for (const auto& row : rows) {
        const Json line = Json::parse(row.line), pattern = Json::parse(row.pattern);
        EXPECT_EQ(terminal::contains(line, pattern), row.contains) << row.line << row.pattern;
        EXPECT_EQ(terminal::nearness(line, pattern), row.nearness) << row.line << row.pattern;
    }
}

TEST(Matcher, TheNearestLinesOfThePatternsKindComeFirst)
{
    const Json pattern = Json::parse(R"({"bus": "b", "fields": [["state", 1], ["default", 0]]})");
    std::vector<Json> printed;
    for (const char* line : {R"({"controller": "ar"})", R"({"bus": "b", "fields": [["state", 2]]})",
                             R"({"bus": "c", "fields": [["state", 1], ["default", 0]]})",
                             R"({"bus": "b", "fields": [["state", 2], ["default", 0]]})"})
        printed.push_back(Json::parse(line));
    const std::string heading = "; the nearest of the 4 lines printed since the last action:";
    EXPECT_EQ(terminal::nearest_lines(printed, pattern, 3), heading + R"(
    {"bus":"b","fields":[["state",2],["default",0]]}
    {"bus":"b","fields":[["state",2]]}
    {"bus":"c","fields":[["state",1],["default",0]]}
    (and 1 more))");
    EXPECT_EQ(terminal::nearest_lines({printed[0]}, pattern),
              "; the nearest of the 1 line printed since the last action:\n"
              "    {\"controller\":\"ar\"}");
    EXPECT_EQ(terminal::nearest_lines({}, pattern), "; nothing was printed since the last action");
}

}  // namespace
