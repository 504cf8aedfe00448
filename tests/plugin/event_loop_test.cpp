// The running plug-in's event thread ends when the controller is lost (the
// line hung up, whose read delivers no byte; a failed read; a failed wait),
// decoding nothing, and later commands never reach the lost descriptor's
// number. (The time filter and the state machine are shown by the turnstile's
// model, an unknown letter by a scenario.)
#include <algorithm>
#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "terminal_test.h"

namespace catra_test {
namespace {

using Call = SyscallFaults::Call;

// The plug-in set up and running: the controller has received the set-up and
// the default mode "i" that the run function writes at start.
class ControllerLost : public TerminalTest {
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

    // Once the thread has read a first letter, `lose` loses the controller:
    // the thread writes `report` to standard error, closes the device and
    // ends, having decoded nothing more when `nothing_decoded`; a later
    // command is refused without reaching the device's number.
    void expect_lost(const std::function<void()>& lose, const std::string& report,
                     bool nothing_decoded = true)
    {
        StderrCapture capture;
        pty().write_event('l');
        ASSERT_TRUE(eventually([&] { return events() == 1; }));  // the thread reads
        lose();
        ASSERT_TRUE(SyscallFaults::wait_device_closed(kWait));
        const auto says = [&](const std::string& text) {
            return eventually([&] { return capture.text().find(text) != std::string::npos; });
        };
        EXPECT_TRUE(says(report)) << capture.text();
        if (nothing_decoded) {
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

    std::size_t writes_seen_ = 0;  // controller writes of the set-up and start
};

// The line hung up: the read delivers no byte.
TEST_F(ControllerLost, HangUp)
{
    expect_lost([this] { pty().hang_up(); }, "Nao foi possivel ler o GPIO: fim de arquivo\n");
}

TEST_F(ControllerLost, ReadFails)
{
    expect_lost(
        [this] {
            SyscallFaults::fail_next(Call::read, EIO);
            pty().write_event('a');
        },
        "Nao foi possivel ler o GPIO: Input/output error\n");
}

// The wait armed to fail may be the one after the letter that woke it.
TEST_F(ControllerLost, WaitFails)
{
    expect_lost(
        [this] {
            SyscallFaults::fail_next(Call::select, EINTR);
            pty().write_event('a');
        },
        "Erro ao esperar notificacoes: Interrupted system call\n", false);
}

}  // namespace
}  // namespace catra_test
