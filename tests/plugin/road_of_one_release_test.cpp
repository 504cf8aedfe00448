// One release from request to passage, through the running plug-in, with the
// test playing the turnstile controller: the request, the relay pulse, the
// release text, the freed side, the turn (or the give-up) with its access
// event and uuid, the counters, and the default mode restored.
#include <string>
#include <vector>

#include "terminal_test.h"

namespace catra_test {
namespace {

using Texts = std::vector<std::string>;

class RoadOfOneRelease : public TerminalTest {
protected:
    void SetUp() override
    {
        TerminalTest::SetUp();
        config().set("catra", "gateway", "clockwise");
        config().set("gpio", "catra_relay_1_enabled", 1);  // relay 1 serves "right"
        ASSERT_TRUE(load_plugin());
        ASSERT_TRUE(start_plugin());
        ASSERT_TRUE(expect_commands(setup_commands()));
        ASSERT_TRUE(expect_commands({"i"}));  // blocked by default
    }

    // The messages sent so far, rendered, with the wall-clock timestamp of
    // "catra_event" shown as 0.
    Texts sent()
    {
        Texts lines;
        for (RecordedMessage message : recorder().messages()) {
            for (ac::MessageField& field : message.fields)
                if (message.type == "catra_event" && field.key == "timestamp")
                    field.int_value = 0;
            lines.push_back(render(message));
        }
        return lines;
    }
    // Requests the release and answers as the controller does: the relay
    // pulse comes before the text, then the clockwise side is freed.
    void release_and_free(const std::string& uuid)
    {
        send("liberate_catra",
             {{"catra_direction", "clockwise"}, {"uuid", uuid}, {"catra_reason", 1}});
        ASSERT_TRUE(expect_commands({"r5"}));
        EXPECT_EQ(sent(),
                  (Texts{"liberate_catra{catra_direction=\"clockwise\",uuid=\"" + uuid +
                             "\",catra_reason=1}",
                         "gpio_deactivate{gpio=30}", "gpio_activate{timeout=500,gpio=30}"}));

        recorder().clear();

        pty().write_event('f');
        ASSERT_TRUE(recorder().wait_for("catra_state_changed", 1));
        EXPECT_EQ(sent(), (Texts{"catra_event{event=5,event_name=\"FREE RIGHT\",timestamp=0,"
                                 "uuid=\"" +
                                     uuid + "\",access_event_id=0}",
                                 "catra_state_changed{state=2}"}));
        recorder().clear();
    }
    standin::Rows access_events()
    {
        return database().query("SELECT module, name, uuid, device_id FROM access_events");
    }
    Texts counters()
    {
        Texts values;
        for (const char* name : {"left_turns", "right_turns", "entrance_turns", "exit_turns"})
            values.push_back(name + std::string("=") + std::to_string(database().counter(name)));
        return values;
    }
};

TEST_F(RoadOfOneRelease, ClockwisePassage)
{
    release_and_free("road-1");
    if (HasFatalFailure())
        return;

    // The person turns: stored, published with its id, counted, mode restored.
    pty().write_event('i');
    ASSERT_TRUE(expect_commands({"i"}));
    const standin::Rows stored = database().query("SELECT id FROM access_events");
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(access_events(), (standin::Rows{{"catra", "TURN RIGHT", "road-1", "1"}}));
    EXPECT_EQ(sent(), (Texts{"catra_event{event=8,event_name=\"TURN RIGHT\",timestamp=0,"
                             "uuid=\"road-1\",access_event_id=" +
                             stored[0][0] + "}"}));
    EXPECT_EQ(counters(),
              (Texts{"left_turns=0", "right_turns=1", "entrance_turns=1", "exit_turns=0"}));
    recorder().clear();

    // The controller takes the blocked mode again.
    pty().write_event('a');
    ASSERT_TRUE(recorder().wait_for("catra_state_changed", 1));
    EXPECT_EQ(sent(), (Texts{
                          "catra_event{event=0,event_name=\"ALWAYS BLOCKED\",timestamp=0,"
                          "uuid=\"\",access_event_id=0}",
                          "catra_state_changed{state=0}",
                      }));
    EXPECT_EQ(request("catra_state").text(), "reply{state=0,default_state=0}");
    // The access log is left as the granting module wrote it.
    EXPECT_EQ(database().query("SELECT event FROM access_logs ORDER BY id"),
              (standin::Rows{{"1"}, {"1"}}));
}

TEST_F(RoadOfOneRelease, NobodyPassesAndTheReleaseIsGivenUp)
{
    release_and_free("road-2");
    if (HasFatalFailure())
        return;

    // A give-up counts only once the controller has been quiet long enough.
    clock().advance_ms(600);
    pty().write_event('j');
    ASSERT_TRUE(expect_commands({"i"}));
    const standin::Rows stored = database().query("SELECT id FROM access_events");
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(access_events(), (standin::Rows{{"catra", "GIVE UP", "road-2", "1"}}));
    EXPECT_EQ(sent(), (Texts{"catra_event{event=9,event_name=\"GIVE UP\",timestamp=0,"
                             "uuid=\"road-2\",access_event_id=" +
                             stored[0][0] + "}"}));
    // The access of this release, the newest record, is marked given up.
    EXPECT_EQ(database().query("SELECT user_id, event FROM access_logs ORDER BY id"),
              (standin::Rows{{"100", "1"}, {"101", "13"}}));
    EXPECT_EQ(counters(),
              (Texts{"left_turns=0", "right_turns=0", "entrance_turns=0", "exit_turns=0"}));

    pty().write_event('a');
    ASSERT_TRUE(recorder().wait_for("catra_state_changed", 1));
    EXPECT_EQ(request("catra_state").text(), "reply{state=0,default_state=0}");
}

}  // namespace
}  // namespace catra_test
