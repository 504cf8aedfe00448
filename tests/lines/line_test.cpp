// The output line: each kind told readably, a line of the first kind whose
// key it holds, and the readers. (Each builder's line is what the scenarios'
// expectations match.)
#include <gtest/gtest.h>

#include "lines/line.h"

namespace {

using lines::Json;
using simulator::Side;

const Json kFields = Json::parse(R"([["state", 1], ["uuid", "u-1"]])");

TEST(Line, EachKindIsToldReadably)
{
    const Json rows = Json::parse(R"([{"name": "left_turns", "value": 0}, 7])");
    const std::pair<Json, const char*> cases[] = {
        {lines::note_line("a"), "\n== a"},
        {lines::init_failed_line("no fi1"), "plug-in    init failed: no fi1"},
        {lines::sent_line("liberate_catra", kFields),
         R"(terminal > liberate_catra state=1 uuid="u-1")"},
        {lines::bus_line("catra_state_changed", Json::array()), "plug-in  > catra_state_changed"},
        {lines::controller_line("r5"), "controller < r5"},
        {lines::turnstile_line('f'), "controller > f  FREE RIGHT"},
        {lines::person_line(Side::left, true), "person     turn_left: the turnstile turns"},
        {lines::person_line(Side::right, false),
         "person     turn_right: that side is locked, nothing turns"},
        {lines::log_line("debug", "catra_thread", "up"), "debug      catra_thread: up"},
        {lines::log_line("error", std::nullopt, "oops"), "error      oops"},
        {lines::reply_line("catra_state", true, kFields),
         R"(reply      catra_state state=1 uuid="u-1")"},
        {lines::reply_line("catra_state", false, kFields), "reply      catra_state: not replied"},
        {lines::dump_line("counters", rows),
         "dump       counters: 2 rows\n             name=\"left_turns\" value=0\n            7"},
        {lines::dump_line("portals", Json::array({Json::object()})),
         "dump       portals: 1 row\n            "},
        {Json{{"bus", "x"}, {"note", "n"}}, "\n== n"},
        {Json{{"fields", 1}}, R"({"fields":1})"},
        {Json::object(), "{}"},
    };
    for (const auto& [line, readable] : cases)
        EXPECT_EQ(lines::readable(line), readable) << line;
}

TEST(Line, ReadersTakeWhatALineSaysUnderItsKind)
{
    const Json bus = lines::bus_line("catra_event", kFields);
    EXPECT_EQ(lines::kind_of(Json{{"reply", 1}, {"log", 2}}), lines::Kind::log);
    EXPECT_EQ(lines::subject(Json{{"turnstile", 5}}), "5");
    EXPECT_EQ(lines::fields_of(Json{{"bus", "x"}, {"fields", "none"}}), Json::array());
    EXPECT_EQ(lines::fields_of(Json{{"note", "x"}, {"fields", kFields}}), Json::array());
    EXPECT_EQ(lines::field_of(bus, "uuid"), "u-1");
    EXPECT_EQ(lines::field_of(bus, "event"), nullptr);
    EXPECT_EQ(lines::compact(Json("a\xff")), "\"a\xef\xbf\xbd\"");  // not UTF-8: U+FFFD
}

}  // namespace
