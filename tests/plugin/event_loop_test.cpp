// The running plug-in's event thread: the controller's letters through the
// time filter and the turnstile state machine, and the end of the thread when
// the controller is lost.
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include "terminal_test.h"

namespace catra_test {
namespace {

using namespace std::string_literals;
using Call = SyscallFaults::Call;
using Texts = std::vector<std::string>;
using Kind = standin::LogLine::Kind;

// The plug-in set up and running: the controller has received the set-up and
// the default mode "i" that the run function writes at start.
class EventLoop : public TerminalTest {
protected:
    void SetUp() override
    {
        TerminalTest::SetUp();
        std::string error;
        ASSERT_TRUE(load_plugin(&error)) << error;
        ASSERT_TRUE(expect_commands(setup_commands()));
        ASSERT_TRUE(start_plugin());
        ASSERT_TRUE(expect_commands({"i"}));
        writes_seen_ = SyscallFaults::device_writes().size();
    }

    std::size_t published() { return recorder().of_type("catra_event").size(); }
    int last_event() { return recorder().of_type("catra_event").back().fields.at(0).int_value; }
    // Reports one letter; `publishes` says whether a "catra_event" is due for it.
    void report(char letter, bool publishes = true)
    {
        pty().write_event(letter);
        due_ += publishes ? 1 : 0;
    }
    // Reports one letter and waits until its "catra_event" is out.
    void handled(char letter)
    {
        report(letter);
        EXPECT_TRUE(recorder().wait_for("catra_event", due_)) << "letter " << letter;
    }
    // Reports a ready event, which is never filtered and changes nothing, and
    // waits for it: every letter reported before it has then been handled to
    // the end, and exactly the due events were published.
    void settle()
    {
        handled('l');
        EXPECT_EQ(published(), due_) << recorder().dump();
        EXPECT_EQ(last_event(), 11) << recorder().dump();
    }

    std::size_t writes_seen_ = 0;  // controller writes of the set-up and start
    std::size_t due_ = 0;          // "catra_event" messages due since the start
};

TEST_F(EventLoop, BlockedAndGiveUpAreDroppedInsideTheirWindows)
{
    const struct {
        long advance_ms;
        char letter;
        bool published;
    } steps[] = {
        {99, 'k', false},   // 99 ms after the set-up: dropped
        {1, 'k', true},     // 100 ms
        {60, 'k', false},   // 60 ms
        {60, 'k', true},    // 120 ms: the dropped one did not move the reference
        {50, 'm', true},    // readiness is never filtered ...
        {50, 'k', true},    // ... and does not move the reference: 100 ms
        {1, 'l', true},     // the same for l
        {49, 'a', true},    // any other event passes at once and restarts the window
        {99, 'k', false},   // 99 ms after a
        {1, 'k', true},     // 100 ms after a
        {499, 'j', false},  // 499 ms
        {1, 'j', true},     // 500 ms
        {0, 'j', false},    // at once after the accepted give-up
    };
    for (const auto& step : steps) {
        SCOPED_TRACE("letter "s + step.letter + " after " + std::to_string(step.advance_ms) +
                     " ms");
        clock().advance_ms(step.advance_ms);
        if (step.published) {
            handled(step.letter);
            EXPECT_EQ(last_event(), step.letter - 'a');
        } else {
            report(step.letter, false);
            settle();
        }
    }
    EXPECT_EQ(SyscallFaults::device_writes().size(), writes_seen_);
}

TEST_F(EventLoop, AnUnknownByteIsPublishedThenLoggedAndTheLoopGoesOn)
{
    pty().write_event('z');
    pty().write_event('A');
    pty().write_event('f');
    ASSERT_TRUE(recorder().wait_for("catra_state_changed", 1));

    const std::vector<RecordedMessage> events = recorder().of_type("catra_event");
    ASSERT_EQ(events.size(), 3u) << recorder().dump();
    const char* const rendered[] = {"catra_event{event=25,event_name=\"UNKNOWN EVENT\",",
                                    "catra_event{event=-32,event_name=\"UNKNOWN EVENT\",",
                                    "catra_event{event=5,event_name=\"FREE RIGHT\","};
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(render(events[i]).rfind(rendered[i], 0), 0u) << render(events[i]);
        EXPECT_EQ(events[i].fields.at(4).int_value, 0) << "access_event_id";
    }
    EXPECT_EQ(log_texts(Kind::error),
              (Texts{"Unknown catra event: 25", "Unknown catra event: -32"}));
    EXPECT_EQ(render(recorder().of_type("catra_state_changed").at(0)),
              "catra_state_changed{state=2}");

    // The event thread named itself, once.
    int named = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string name;
        named += std::getline(comm, name) && name == "catra_run";
    }
    EXPECT_EQ(named, 1);
}

enum class Loss { hang_up, read_fails, wait_fails };

struct ControllerLoss {
    const char* name;
    Loss loss;
    const char* report;  // the start of the event thread's last line on standard error
};

void PrintTo(const ControllerLoss& row, std::ostream* out)
{
    *out << row.name;
}

class ControllerLost : public EventLoop, public ::testing::WithParamInterface<ControllerLoss> {};

TEST_P(ControllerLost, EndsTheThreadAndLaterCommandsNeverReachTheNumber)
{
    const ControllerLoss& row = GetParam();
    StderrCapture capture;
    settle();
    switch (row.loss) {
        case Loss::hang_up: pty().hang_up(); break;
        case Loss::read_fails:
            SyscallFaults::fail_next(Call::read, EIO);
            pty().write_event('a');
            break;
        case Loss::wait_fails:
            SyscallFaults::fail_next(Call::select, EINTR);
            pty().write_event('a');
            break;
    }
    ASSERT_TRUE(SyscallFaults::wait_device_closed(kWait));
    EXPECT_TRUE(capture.wait_for(row.report, kWait)) << capture.text();
    if (row.loss == Loss::read_fails) {
        EXPECT_EQ(published(), 1u) << "an event was decoded from a failed read";
    }

    send("config_param_set",
         {{"module", "catra"}, {"param", "operation_mode"}, {"value", "both_open"}});
    ASSERT_TRUE(wait_idle());
    EXPECT_TRUE(
        capture.wait_for("Nao foi possivel liberar a CATRACA: Bad file descriptor\n", kWait))
        << capture.text();
    EXPECT_EQ(SyscallFaults::writes_after_close(), 0);
    EXPECT_EQ(SyscallFaults::device_writes().size(), writes_seen_);
}

INSTANTIATE_TEST_SUITE_P(
    EachWay, ControllerLost,
    ::testing::Values(ControllerLoss{"HangUp", Loss::hang_up, "Nao foi possivel ler o GPIO: "},
                      ControllerLoss{"ReadFails", Loss::read_fails,
                                     "Nao foi possivel ler o GPIO: Input/output error\n"},
                      ControllerLoss{"WaitFails", Loss::wait_fails,
                                     "Erro ao esperar notificacoes: Interrupted system call\n"}),
    [](const ::testing::TestParamInfo<ControllerLoss>& info) { return info.param.name; });

}  // namespace
}  // namespace catra_test
