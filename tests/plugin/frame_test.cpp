// The plug-in frame as the terminal sees it: registration with the host, the
// start-up commands of the run function, and the queue's watchdog period and
// keep-alive. (That each type reaches its handler on the queue, the examples'
// scenarios show.)
#include <atomic>
#include <cerrno>
#include <string>
#include <vector>

#include "terminal_test.h"

namespace {

// The host's watchdog feeds of "catra": this executable defines keep_alive in
// place of the host's, which drops them, and exports it to the plug-in.
std::atomic<int> catra_feeds{0};

}  // namespace

void ac::watchdog::keep_alive(const std::string& module)
{
    if (module == "catra")
        ++catra_feeds;
}

namespace catra_test {
namespace {

using Texts = std::vector<std::string>;

class Frame : public TerminalTest {};

TEST_F(Frame, HostRegistrationHasTheTenTypesInOrderWithTheirFlags)
{
    std::string error;
    ASSERT_TRUE(load_plugin(&error)) << error;
    EXPECT_EQ(plugin_host().plugin().name(), "catra");
    EXPECT_NE(plugin_host().plugin().run_function(), nullptr);

    const struct {
        const char* type;
        bool flag;
        bool copied;  // queued as a copy instead of moved into the queue
    } expected[] = {
        {"catra_catra_enabled", false, false}, {"catra_set_catra_enabled", false, false},
        {"catra_state", false, false},         {"liberate_catra", true, false},
        {"catra_open_collector", true, false}, {"catra_photo_sensor", true, false},
        {"catra_solenoid", true, false},       {"catra_set_solenoid", true, false},
        {"gpio_notified", true, true},         {"config_param_set", false, true},
    };
    const std::vector<ac::MessageListener> rows = plugin_host().plugin().listeners();
    ASSERT_EQ(rows.size(), 10u);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE("row " + std::to_string(i + 1) + " " + rows[i].type);
        EXPECT_EQ(rows[i].type, expected[i].type);
        EXPECT_EQ(rows[i].flag, expected[i].flag);
        // One function moves, the other copies; the queue is not served yet,
        // so a moved message waits there untouched.
        EXPECT_EQ(rows[i].function, rows[expected[i].copied ? 8 : 0].function);
        auto* msg = new ac::Message(rows[i].type, 0, nullptr);
        rows[i].function(msg);
        EXPECT_EQ(msg->handled(), !expected[i].copied);
        EXPECT_EQ(msg->transferred(), !expected[i].copied);
        if (expected[i].copied)
            delete msg;
    }
    EXPECT_NE(rows[0].function, rows[8].function);
}

TEST_F(Frame, RunHandsTheWatchdogPeriodToTheQueueAndFeedsCatra)
{
    // A period no test outlasts, and an event thread that ends after its
    // first pass: from then on only the queue's keep-alive feeds "catra".
    config().set("catra", "watchdog_timeout", 600000);
    SyscallFaults::fail_next(SyscallFaults::Call::select, EIO);
    ASSERT_TRUE(run_plugin());
    ASSERT_TRUE(SyscallFaults::wait_device_closed(kWait));
    const Texts served = {"queue served; keep-alive after each message and every 600000 ms idle"};
    ASSERT_TRUE(eventually([&] { return logs().texts(standin::LogLine::Kind::host) == served; }));

    // The event thread fed "catra" on its one pass; the queue feeds it after
    // each message it serves.
    EXPECT_EQ(catra_feeds, 1);
    EXPECT_EQ(request("catra_state"), "reply{state=0,default_state=0}");
    EXPECT_TRUE(eventually([&] { return catra_feeds == 2; }));

    // Should the queue ever stop being served, run returns 1 to the host.
    EXPECT_EQ(plugin_host().run_result(), 0);  // not yet returned
    plugin_host().stop();
    EXPECT_EQ(plugin_host().run_result(), 1);
}

// ---------------------------------------------------------------- start-up commands

// After the set-up the run function writes the default mode's command, then
// the exception mode's. Whatever start-up writes comes before the first
// command of a queued request, so a "both" release marks its end.
class FrameStartUp : public TerminalTest {
protected:
    void expect_start_up(const Texts& commands)
    {
        ASSERT_TRUE(load_plugin());
        send("liberate_catra", {{"catra_direction", "both"}, {"catra_reason", 1}});
        ASSERT_TRUE(start_plugin());
        Texts expected = setup_commands();
        expected.insert(expected.end(), commands.begin(), commands.end());
        expected.push_back("b5");
        EXPECT_TRUE(expect_commands(expected));
        EXPECT_EQ(SyscallFaults::device_writes().size(), expected.size());
    }
};

TEST_F(FrameStartUp, ExceptionMode1FreesBothWaysAfterTheBlockedDefault)
{
    config().set("host", "exception_mode", "1");
    expect_start_up({"i", "ab"});
}

TEST_F(FrameStartUp, ExceptionMode2BlocksAfterTheBothOpenDefault)
{
    config().set("host", "exception_mode", "2");
    config().set("catra", "operation_mode", "both_open");
    expect_start_up({"ab", "i"});
}

}  // namespace
}  // namespace catra_test
