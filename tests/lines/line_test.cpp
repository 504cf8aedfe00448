// The output line: each kind's builder, the kind a line is told apart as, its
// readable telling, and the readers.
#include <gtest/gtest.h>

#include "lines/line.h"

namespace {

using lines::Json;
using lines::Kind;
using simulator::Side;

const Json kFields = Json::parse(R"([["state", 1], ["uuid", "u-1"]])");

TEST(Line, EachKindIsBuiltToldApartAndToldReadably)
{
    const struct {
        Json line;
        Kind kind;
        const char *json, *readable;
    } cases[] = {
        {lines::note_line("a <b>"), Kind::note, R"({"note":"a <b>"})", "\n== a <b>"},
        {lines::init_failed_line("no fi1"), Kind::init_failed, R"({"init_failed":"no fi1"})",
         "plug-in    init failed: no fi1"},
        {lines::sent_line("liberate_catra", kFields), Kind::sent,
         R"({"sent":"liberate_catra","fields":[["state",1],["uuid","u-1"]]})",
         R"(terminal > liberate_catra state=1 uuid="u-1")"},
        {lines::bus_line("catra_state_changed", Json::array()), Kind::bus,
         R"({"bus":"catra_state_changed","fields":[]})", "plug-in  > catra_state_changed"},
        {lines::controller_line("r5"), Kind::controller, R"({"controller":"r5"})",
         "controller < r5"},
        {lines::turnstile_line('f'), Kind::turnstile, R"({"turnstile":"f"})",
         "controller > f  FREE RIGHT"},
        {lines::person_line(Side::left, true), Kind::person,
         R"({"person":"turn_left","turned":true})", "person     turn_left: the turnstile turns"},
        {lines::person_line(Side::right, false), Kind::person,
         R"({"person":"turn_right","turned":false})",
         "person     turn_right: that side is locked, nothing turns"},
        {lines::log_line("debug", "catra_thread", "up"), Kind::log,
         R"({"log":"debug","function":"catra_thread","text":"up"})", "debug      catra_thread: up"},
        {lines::log_line("error", std::nullopt, "oops"), Kind::log,
         R"({"log":"error","text":"oops"})", "error      oops"},
        {lines::reply_line("catra_state", true, kFields), Kind::reply,
         R"({"reply":"catra_state","replied":true,"fields":[["state",1],["uuid","u-1"]]})",
         R"(reply      catra_state state=1 uuid="u-1")"},
        {lines::reply_line("catra_state", false, Json::array()), Kind::reply,
         R"({"reply":"catra_state","replied":false,"fields":[]})",
         "reply      catra_state: not replied"},
        {lines::dump_line("counters", Json::parse(R"([{"name": "left_turns", "value": 0}, 7])")),
         Kind::dump, R"({"dump":"counters","rows":[{"name":"left_turns","value":0},7]})",
         "dump       counters: 2 rows\n             name=\"left_turns\" value=0\n            7"},
        // The first kind whose key a line holds; none: other, shown as it is.
        {Json{{"bus", "x"}, {"note", "n"}}, Kind::note, R"({"bus":"x","note":"n"})", "\n== n"},
        {Json{{"fields", 1}}, Kind::other, R"({"fields":1})", R"({"fields":1})"},
        {Json::object(), Kind::other, "{}", "{}"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(lines::compact(c.line), c.json);
        EXPECT_EQ(lines::kind_of(c.line), c.kind) << c.json;
        EXPECT_EQ(lines::readable(c.line), c.readable) << c.json;
    }
}

TEST(Line, ReadersTakeWhatALineSaysUnderItsKind)
{
    const Json bus = lines::bus_line("catra_event", kFields);
    EXPECT_EQ(lines::subject(bus), "catra_event");
    EXPECT_EQ(lines::subject(Json{{"turnstile", 5}}), "5");
    EXPECT_EQ(lines::subject(Json{{"x", "y"}}), "");
    EXPECT_EQ(lines::fields_of(bus), kFields);
    EXPECT_EQ(lines::fields_of(Json{{"bus", "x"}, {"fields", "none"}}), Json::array());
    EXPECT_EQ(lines::fields_of(Json{{"note", "x"}, {"fields", kFields}}), Json::array());
    EXPECT_EQ(lines::field_of(bus, "uuid"), "u-1");
    EXPECT_EQ(lines::field_of(bus, "event"), nullptr);
    // Bytes that are not UTF-8 become U+FFFD.
    EXPECT_EQ(lines::compact(Json("a\xff")), "\"a\xef\xbf\xbd\"");
}

}  // namespace
