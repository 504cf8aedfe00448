// The running plug-in's event thread ends when the controller is lost (the
// line hung up, whose read delivers no byte; a failed read; a failed wait),
// decoding nothing, and later commands never reach the lost descriptor's
// number. (The time filter and the state machine are shown by the turnstile's
// model, an unknown letter by a scenario.)
#include <algorithm>
#include <cerrno>
#include <ostream>
#include <string>
#include <vector>

#include "terminal_test.h"

namespace catra_test {
namespace {

using Call = SyscallFaults::Call;

enum class Loss { hang_up, read_fails, wait_fails };

struct ControllerLoss {
    const char* name;
    Loss loss;
    const char* report;  // the event thread's last line on standard error
};

void PrintTo(const ControllerLoss& row, std::ostream* out)
{
    *out << row.name;
}

// The plug-in set up and running: the controller has received the set-up and
// the default mode "i" that the run function writes at start.
class ControllerLost : public TerminalTest, public ::testing::WithParamInterface<ControllerLoss> {
protected:
    void SetUp() override
    {
        TerminalTest::SetUp();
        ASSERT_TRUE(run_plugin());
        writes_seen_ = SyscallFaults::device_writes().size();
    }

    // The events published since the last clear of the recorder.
    long events()
    {
        const std::vector<std::string> trace = recorder().trace();
        return std::count_if(trace.begin(), trace.end(), [](const std::string& line) {
            return line.rfind("catra_event{", 0) == 0;
        });
    }

    std::size_t writes_seen_ = 0;  // controller writes of the set-up and start
};

TEST_P(ControllerLost, EndsTheThreadAndLaterCommandsNeverReachTheNumber)
{
    const ControllerLoss& row = GetParam();
    StderrCapture capture;
    pty().write_event('l');
    ASSERT_TRUE(eventually([&] { return events() == 1; }));  // the thread reads
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
    const auto says = [&](const std::string& text) {
        return eventually([&] { return capture.text().find(text) != std::string::npos; });
    };
    EXPECT_TRUE(says(row.report)) << capture.text();
    // (The wait armed to fail may be the one after the letter that woke it.)
    if (row.loss != Loss::wait_fails) {
        EXPECT_EQ(events(), 1) << "an event was decoded from a failed or empty read";
    }

    send("config_param_set",
         {{"module", "catra"}, {"param", "operation_mode"}, {"value", "both_open"}});
    ASSERT_TRUE(bus().wait_idle());
    EXPECT_TRUE(says("Nao foi possivel liberar a CATRACA: Bad file descriptor\n"))
        << capture.text();
    EXPECT_EQ(SyscallFaults::writes_after_close(), 0);
    EXPECT_EQ(SyscallFaults::device_writes().size(), writes_seen_);
}

INSTANTIATE_TEST_SUITE_P(
    EachWay, ControllerLost,
    ::testing::Values(ControllerLoss{"HangUp", Loss::hang_up,
                                     "Nao foi possivel ler o GPIO: fim de arquivo\n"},
                      ControllerLoss{"ReadFails", Loss::read_fails,
                                     "Nao foi possivel ler o GPIO: Input/output error\n"},
                      ControllerLoss{"WaitFails", Loss::wait_fails,
                                     "Erro ao esperar notificacoes: Interrupted system call\n"}),
    [](const ::testing::TestParamInfo<ControllerLoss>& info) { return info.param.name; });

}  // namespace
}  // namespace catra_test
