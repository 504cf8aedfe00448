// The controller commands: the release time and the relay pulses of the timed
// releases, names outside the table, a failed write, and an event thread
// without a device to watch.
#include <fcntl.h>
#include <pthread.h>
#include <sys/select.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "catra_internal.h"
#include "controller_line_test.h"

namespace catra_test {
namespace {

using namespace std::string_literals;
using Call = SyscallFaults::Call;

// The commands run with state_mutex held, as their callers hold it.
class Controller : public ControllerLineTest {
protected:
    std::lock_guard<std::mutex> lock_{state_mutex};
};

// Each command is one write of its text and NUL (the turnstile's model shows
// them all); a timed release's time goes in as "%d", sign and all, after the
// pulses of the relays that serve its direction.
TEST_F(Controller, TimedReleasesCarryTheirTimeAndPulseTheRelaysOfTheirDirection)
{
    const std::string d30 = "gpio_deactivate{gpio=30}", a30 = "gpio_activate{timeout=500,gpio=30}";
    const std::string d31 = "gpio_deactivate{gpio=31}", a31 = "gpio_activate{timeout=500,gpio=31}";
    const std::string slow = "gpio_activate{timeout=250,gpio=30}";
    const std::string r5 = "write r5\\0", l5 = "write l5\\0", b5 = "write b5\\0";
    const struct {
        int relay_1_enabled;
        const char* relay_1_direction;  // "": as when not configured
        int relay_2_enabled;
        const char* relay_2_direction;
        bool ktr;  // device model varnek_KTR: relay 2 does not exist
        int relay_timeout;
        const char* command;
        Texts trace;  // the pulses, then the command's write
        int release_time = 5;
    } table[] = {
        // clang-format off
        {1, "right", 1, "left", false, 500, "anticlockwise", {d31, a31, l5}},
        {1, "right", 1, "right", false, 500, "clockwise", {d30, a30, d31, a31, r5}},
        {1, "right", 1, "right", true, 500, "clockwise", {d30, a30, r5}},
        {1, "left", 1, "left", true, 500, "both", {d30, a30, b5}},
        {0, "left", 1, "left", true, 500, "anticlockwise", {l5}},
        {7, "left", 0, "left", false, 500, "anticlockwise", {d30, a30, l5}},
        {1, "Right", 0, "left", false, 500, "clockwise", {r5}},
        {1, "Right", 0, "left", false, 500, "both", {d30, a30, b5}},
        {1, "", 1, "", false, 500, "both", {d30, a30, d31, a31, b5}},
        {1, "right", 1, "right", false, 0, "clockwise", {r5}},
        {1, "left", 0, "left", false, 250, "anticlockwise", {d30, slow, l5}},
        {1, "left", 1, "left", false, 500, "alwaysanticlockwise", {"write al\\0"}},
        {0, "", 0, "", false, 500, "clockwise", {"write r0\\0"}, 0},
        {0, "", 0, "", false, 500, "anticlockwise", {"write l-1\\0"}, -1},
        {0, "", 0, "", false, 500, "both", {"write b-2147483648\\0"}, INT_MIN},
        // clang-format on
    };
    for (const auto& row : table) {
        SCOPED_TRACE("row " + std::to_string(&row - table + 1));
        set_default_configuration();
        config().set("gpio", "catra_relay_1_enabled", row.relay_1_enabled);
        config().set("gpio", "catra_relay_2_enabled", row.relay_2_enabled);
        config().set("gpio", "catra_relay_1_enable_direction", row.relay_1_direction);
        config().set("gpio", "catra_relay_2_enable_direction", row.relay_2_direction);
        if (row.ktr) {
            config().set("host", "device_model", "varnek_KTR");
            config().erase("gpio", "catra_relay_2_gpio");  // never asked for
        }
        config().set("catra", "relay_timeout", row.relay_timeout);
        config().set("", "catra_timeout", row.release_time);
        recorder().clear();
        do_execute_command(row.command);
        EXPECT_EQ(recorder().trace(), row.trace);
    }
}

TEST_F(Controller, NamesOutsideTheTableAreRefusedBeforeAnythingHappens)
{
    config().set("gpio", "catra_relay_1_enabled", 1);
    config().set("gpio", "catra_relay_2_enabled", 1);
    for (const char* name : {"Clockwise", " idle", "idle ", "", "IDLE", "r5", "alwaysClockwise"}) {
        EXPECT_EQ(thrown_text([name] { do_execute_command(name); }),
                  std::string("unknown catra allow: ") + name);
    }
    EXPECT_TRUE(recorder().trace().empty());
    EXPECT_TRUE(logs().lines().empty());
}

TEST_F(Controller, AFailedCommandWriteIsReportedAfterItsDebugLineAndNotRaised)
{
    SyscallFaults::fail_next(Call::write, EIO);
    {
        StderrCapture capture;
        EXPECT_NO_THROW(do_execute_command("clockwise"));
        EXPECT_EQ(capture.text(), "[debug] do_execute_command: CATRA command: r5 no fd: " +
                                      std::to_string(catra_fd) +
                                      "\nNao foi possivel liberar a CATRACA: Input/output error\n");
    }
    // The failed write did not reach the controller.
    do_execute_command("idle");
    EXPECT_TRUE(expect_commands({"i"}));
}

// The event thread names itself (here the test's thread) and needs a
// descriptor that select can watch; without one it says so once and ends,
// and a failure to name the thread is logged and not raised.
TEST_F(Controller, AnEventThreadWithoutAWatchableDeviceSaysSoAndEnds)
{
    const int line = catra_fd;
    for (const int fd : {-1, FD_SETSIZE}) {
        catra_fd = fd;
        logs().clear();
        do_catra_run();
        const std::string unwatchable = "catra_run: controller descriptor " + std::to_string(fd) +
                                        " cannot be watched; turnstile events will not be read";
        EXPECT_EQ(logs().texts(standin::LogLine::Kind::error),
                  (fd < 0 ? Texts{unwatchable}
                          : Texts{"catra_run: set_thread_name failure", unwatchable}));
        config().set("host", "failing", "set_thread_name");
    }
    catra_fd = line;
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    EXPECT_STREQ(name, "catra_run");
}

}  // namespace
}  // namespace catra_test
