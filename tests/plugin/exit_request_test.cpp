// Exit-request buttons through the running plug-in: buttonholes 1, 2 and 3
// are GPIOs 20, 41 and 42; 20 is also photo sensor 1's, which counts as a
// buttonhole while the turnstile is enabled. A press starts a worker that
// waits briefly for a second button, releases the turnstile and sounds the
// buzzer (a host line "buzzer").
#include <algorithm>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "terminal_test.h"

namespace catra_test {
namespace {

using Texts = std::vector<std::string>;
using Kind = standin::LogLine::Kind;

class ExitRequest : public TerminalTest {
protected:
    void SetUp() override
    {
        TerminalTest::SetUp();
        config().set("host", "buttonholes", "20,41,42");
        ASSERT_TRUE(run_plugin());
    }

    // Presses (any level but 1) and releases, sent back to back.
    void notify(const std::vector<std::pair<int, int>>& levels)
    {
        for (const auto& [gpio, value] : levels)
            send("gpio_notified", {{"gpio", gpio}, {"value", value}});
    }
    long buzzes()
    {
        const Texts lines = logs().texts(Kind::host);
        return std::count(lines.begin(), lines.end(), "buzzer");
    }
};

TEST_F(ExitRequest, EachBurstOfPressesGivesOneReleaseOneBuzzAndOneRecord)
{
    const struct {
        std::vector<std::pair<int, int>> levels;
        const char* release;
        const char* logged;
        bool alone;  // one press: the worker waits its whole time for a second
    } bursts[] = {
        {{{20, 0}, {41, 0}}, "b5", "Allow both! Reason: REX", false},
        {{{41, 0}, {41, 2}}, "r5", "Allow clockwise! Reason: REX", false},
        {{{42, 0}}, "b5", "Allow both! Reason: REX", true},
        // Had level 1 counted, the second press would have joined it.
        {{{20, 1}, {41, 0}}, "r5", "Allow clockwise! Reason: REX", true},
    };
    for (const auto& burst : bursts) {
        SCOPED_TRACE("burst " + std::to_string(&burst - bursts + 1));
        logs().clear();
        const auto pressed = std::chrono::steady_clock::now();
        notify(burst.levels);
        ASSERT_TRUE(expect_commands({burst.release}));
        // A lone press is released only once the wait for a second button
        // is over: never earlier than 100 ms after it.
        if (burst.alone) {
            EXPECT_GE(std::chrono::steady_clock::now() - pressed, std::chrono::milliseconds(100));
        }
        ASSERT_TRUE(eventually([&] { return buzzes() == 1; }));
        ASSERT_TRUE(bus().wait_idle());
        EXPECT_EQ(buzzes(), 1);
        EXPECT_EQ(debug_lines("log_catra_liberated"), Texts{burst.logged});
        EXPECT_EQ(database().query("SELECT user_id, portal_id, event, reason FROM access_logs "
                                   "ORDER BY id DESC LIMIT 1"),
                  (standin::Rows{{0, 1, 12, 2}}));
    }
}

// A buzzer that fails, or a release whose record SQLite refuses, is logged
// by the worker (tag "operator()"), and the next press is served alone.
TEST_F(ExitRequest, AFailingBuzzerOrReleaseLeavesTheNextPressFree)
{
    for (const bool buzzer_fails : {true, false}) {
        const Texts logged = {buzzer_fails ? "buzzer failure" : "disk I/O error"};
        SCOPED_TRACE(logged.front());
        logs().clear();
        if (buzzer_fails)
            config().set("host", "failing", "buzzer");
        else
            database().exec(refusal("INSERT", "access_logs"));
        notify({{20, 0}});
        if (buzzer_fails) {
            EXPECT_TRUE(expect_commands({"l5"}));  // a refused record writes nothing
        }
        ASSERT_TRUE(eventually([&] { return debug_lines("operator()") == logged; }));
        EXPECT_EQ(buzzes(), 0);
        config().erase("host", "failing");
        database().exec("DROP TRIGGER IF EXISTS refuse");

        // The failed worker left no press pending: this one stands alone.
        notify({{41, 0}});
        EXPECT_TRUE(expect_commands({"r5"}));
        EXPECT_TRUE(eventually([&] { return buzzes() == 1; }));
    }
}

}  // namespace
}  // namespace catra_test
