// The running plug-in's event thread: an unknown letter, and the end of the
// thread when the controller is lost. (The time filter and the state machine
// are shown by the turnstile's model.)
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include "terminal_test.h"

namespace catra_test {
namespace {

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

    std::size_t writes_seen_ = 0;  // controller writes of the set-up and start
};

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

    // The event thread named itself, once (the host's delivery thread, which
    // its first message started, names itself once it has delivered).
    ASSERT_TRUE(wait_idle());
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
    pty().write_event('l');
    ASSERT_TRUE(recorder().wait_for("catra_event", 1));  // the thread reads
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
        EXPECT_EQ(recorder().of_type("catra_event").size(), 1u)
            << "an event was decoded from a failed read";
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
