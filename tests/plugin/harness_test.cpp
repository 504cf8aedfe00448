// The harness's own contract: the controller line, the syscall faults, the
// standard-error capture and the bus helpers. The plug-in's tests rely on
// these reporting exactly what happened.
#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "elf_symbols.h"
#include "terminal_test.h"

namespace catra_test {
namespace {

using namespace std::string_literals;
using simulator::ControllerPty;
using Call = SyscallFaults::Call;

// Reads what the slave side has, waiting for it up to kWait.
std::string read_slave(int fd, std::size_t most)
{
    pollfd watched{fd, POLLIN, 0};
    if (::poll(&watched, 1, static_cast<int>(kWait.count())) != 1)
        return "<nothing>";
    std::string buffer(most, '\xff');
    const ssize_t got = ::read(fd, buffer.data(), most);
    return got < 0 ? "<error>" : buffer.substr(0, static_cast<std::size_t>(got));
}

void write_all(int fd, const std::string& bytes)
{
    ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

class Harness : public ::testing::Test {
protected:
    void SetUp() override
    {
        SyscallFaults::reset();
        SyscallFaults::watch_path(line.slave_path());
        device = ::open(line.slave_path().c_str(), O_RDWR);
        ASSERT_GE(device, 0);
    }
    void TearDown() override
    {
        if (device >= 0 && !SyscallFaults::device_closed())
            ::close(device);
    }

    ControllerPty line;
    int device = -1;
};

TEST_F(Harness, EventIsTheLetterAndANulInOneRead)
{
    line.write_event('f');
    EXPECT_EQ(read_slave(device, 16), "f\0"s);
}

TEST_F(Harness, LineIsRawInBothDirections)
{
    const std::string control = "a\nb\r\0\x03\x7f"s;
    line.write_raw(control);
    std::string received;
    while (received.size() < control.size()) {
        const std::string part = read_slave(device, 16);
        ASSERT_NE(part, "<nothing>") << escape_bytes(received);
        received += part;
    }
    EXPECT_EQ(received, control) << escape_bytes(received);
    // Nothing was echoed back to the controller side.
    write_all(device, "x\0"s);
    EXPECT_EQ(line.read_command(kWait), std::optional<std::string>("x"));
}

TEST_F(Harness, CommandsAreSplitAtTheirNulAcrossWrites)
{
    write_all(device, "ab\0c"s);
    write_all(device, "d\0r5\0"s);
    EXPECT_EQ(line.read_command(kWait), std::optional<std::string>("ab"));
    EXPECT_EQ(line.read_command(kWait), std::optional<std::string>("cd"));
    EXPECT_EQ(line.read_bytes(3, kWait), std::optional<std::string>("r5\0"s));
}

TEST_F(Harness, UnterminatedTextIsNoCommandUntilItsNul)
{
    write_all(device, "xy"s);
    EXPECT_EQ(line.read_command(std::chrono::milliseconds(50)), std::nullopt);
    write_all(device, "\0"s);
    EXPECT_EQ(line.read_command(kWait), std::optional<std::string>("xy"));
    EXPECT_EQ(line.drain(), "");
}

TEST_F(Harness, HangUpEndsTheDevicesReads)
{
    line.hang_up();
    EXPECT_TRUE(line.hung_up());
    pollfd watched{device, POLLIN, 0};
    ASSERT_EQ(::poll(&watched, 1, static_cast<int>(kWait.count())), 1);
    char buffer[2];
    EXPECT_LE(::read(device, buffer, sizeof buffer), 0);
}

TEST_F(Harness, OpenOfTheWatchedPathIsTheDevice)
{
    EXPECT_EQ(SyscallFaults::device_fd(), device);
    EXPECT_FALSE(SyscallFaults::device_closed());
}

TEST_F(Harness, InjectedOpenFailureMatchesThePathOnly)
{
    SyscallFaults::fail_next(Call::open, ENOENT);
    const int other = ::open("/dev/null", O_RDONLY);
    EXPECT_GE(other, 0);
    ::close(other);
    EXPECT_EQ(SyscallFaults::armed(Call::open), 1);

    errno = 0;
    EXPECT_EQ(::open(line.slave_path().c_str(), O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(SyscallFaults::armed(Call::open), 0);
    EXPECT_EQ(SyscallFaults::device_fd(), device) << "a failed open leaves the device as it was";
}

TEST_F(Harness, InjectedWriteFailureWritesNothingAndIsLogged)
{
    SyscallFaults::fail_next(Call::write, EIO);
    errno = 0;
    EXPECT_EQ(::write(device, "i\0", 2), -1);
    EXPECT_EQ(errno, EIO);
    write_all(device, "ab\0"s);
    EXPECT_EQ(line.read_command(kWait), std::optional<std::string>("ab"))
        << "the failed write reached the line";
    EXPECT_EQ(SyscallFaults::device_writes(), (std::vector<std::string>{"i\0"s, "ab\0"s}));
}

TEST_F(Harness, InjectedFailuresCountDown)
{
    SyscallFaults::fail_next(Call::write, EBADF, 2);
    EXPECT_EQ(::write(device, "a", 1), -1);
    EXPECT_EQ(::write(device, "b", 1), -1);
    EXPECT_EQ(::write(device, "c", 1), 1);
    EXPECT_EQ(SyscallFaults::armed(Call::write), 0);
}

TEST_F(Harness, InjectedReadFailureLeavesTheDataInPlace)
{
    line.write_event('k');
    SyscallFaults::fail_next(Call::read, EIO);
    char buffer[2] = {0, 0};
    errno = 0;
    EXPECT_EQ(::read(device, buffer, 2), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(read_slave(device, 2), "k\0"s);
}

TEST_F(Harness, InjectedSelectFailureOnlyWhenWaitingOnTheDevice)
{
    SyscallFaults::fail_next(Call::select, EINTR);
    int other[2];
    ASSERT_EQ(::pipe(other), 0);
    fd_set others;
    FD_ZERO(&others);
    FD_SET(other[0], &others);
    timeval immediately{0, 0};
    EXPECT_EQ(::select(other[0] + 1, &others, nullptr, nullptr, &immediately), 0);
    EXPECT_EQ(SyscallFaults::armed(Call::select), 1);

    line.write_event('a');
    fd_set devices;
    FD_ZERO(&devices);
    FD_SET(device, &devices);
    timeval wait{static_cast<time_t>(kWait.count() / 1000), 0};
    errno = 0;
    EXPECT_EQ(::select(device + 1, &devices, nullptr, nullptr, &wait), -1);
    EXPECT_EQ(errno, EINTR);
    FD_ZERO(&devices);
    FD_SET(device, &devices);
    EXPECT_EQ(::select(device + 1, &devices, nullptr, nullptr, &wait), 1);
    ::close(other[0]);
    ::close(other[1]);
}

TEST_F(Harness, CloseOfTheDeviceIsObservedAndLaterWritesCounted)
{
    EXPECT_FALSE(SyscallFaults::wait_device_closed(std::chrono::milliseconds(1)));
    EXPECT_EQ(::close(device), 0);
    EXPECT_TRUE(SyscallFaults::wait_device_closed(kWait));
    EXPECT_EQ(SyscallFaults::device_fd(), -1);

    errno = 0;
    EXPECT_EQ(::write(device, "i\0", 2), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(SyscallFaults::writes_after_close(), 1);
    EXPECT_EQ(SyscallFaults::device_writes().size(), 0u)
        << "only writes on the open device are logged";

    // Another file under the same number is not the closed device.
    const int null = ::open("/dev/null", O_WRONLY);
    ASSERT_GE(null, 0);
    if (null != device) {
        ASSERT_EQ(::dup2(null, device), device);
        ::close(null);
    }
    EXPECT_EQ(::write(device, "x", 1), 1);
    EXPECT_EQ(SyscallFaults::writes_after_close(), 1);
    ::close(device);
}

TEST(StderrCaptureTest, CapturesPerrorAndGivesStandardErrorBack)
{
    {
        StderrCapture capture;
        errno = EBADF;
        std::perror("Nao foi possivel liberar a CATRACA");
        EXPECT_EQ(capture.text(), "Nao foi possivel liberar a CATRACA: Bad file descriptor\n");
        std::fputs("more\n", stderr);
        EXPECT_TRUE(capture.wait_for("more", kWait));
    }
    StderrCapture again;
    std::fputs("after\n", stderr);
    EXPECT_EQ(again.text(), "after\n");
}

TEST(RenderTest, FieldsInOrderTextsQuoted)
{
    RecordedMessage message{"gpio_activate", {}, false};
    ac::MessageField timeout;
    timeout.key = "timeout";
    timeout.is_int = true;
    timeout.int_value = 500;
    ac::MessageField name;
    name.key = "uuid";
    name.text = "u-1";
    message.fields = {timeout, name};
    EXPECT_EQ(render(message), "gpio_activate{timeout=500,uuid=\"u-1\"}");
    message.sync = true;
    EXPECT_EQ(render(message), "gpio_activate{timeout=500,uuid=\"u-1\"} (sync)");
    EXPECT_EQ(message.int_field("timeout"), 500);
    EXPECT_EQ(message.int_field("uuid"), std::nullopt);
    EXPECT_EQ(message.text_field("uuid"), std::optional<std::string>("u-1"));
    EXPECT_EQ(escape_bytes("d\0\x01\\"s), "d\\0\\x01\\\\");
}

TEST(ElfSymbolsTest, RuntimeNamesAreToldFromThePluginsOwn)
{
    for (const char* runtime :
         {"_ZNSt6vectorIiSaIiEE17_M_realloc_insertIJRKiEEEvN9__gnu_cxx17__normal_iteratorIPiS1_"
          "EEDpOT_",
          "_ZNKSt5ctypeIcE8do_widenEc", "_ZTISt9exception",
          "_ZTSNSt7__cxx1112basic_stringIcSt11char_"
          "traitsIcESaIcEEE",
          "_ZGVZNSt8ios_base4InitC4EvE4once", "_ZN9__gnu_cxx13new_allocatorIcED2Ev",
          "_ZSt4moveIRiEONSt16remove_referenceIT_E4typeEOS2_", "__asan_report_load8", "_init",
          "_fini"})
        EXPECT_TRUE(is_runtime_symbol(runtime)) << runtime;
    for (const char* own :
         {"init", "run", "catra_fd", "current_state",
          "_Z18do_execute_commandRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE", "_Z3runv",
          "_ZN2ac7MessageC2ERKS0_", "_ZTIN2ac12ac_exceptionE"})
        EXPECT_FALSE(is_runtime_symbol(own)) << own;
}

TEST(ElfSymbolsTest, ReadsTheDynamicSymbolTable)
{
    const std::vector<std::string> names = exported_symbols(CATRA_PLUGIN_PATH);
    EXPECT_NE(std::find(names.begin(), names.end(), "init"), names.end()) << escape_list(names);
    EXPECT_THROW(exported_symbols("/nonexistent/libnothing.so"), std::runtime_error);
}

class TerminalHarness : public TerminalTest {};

TEST_F(TerminalHarness, SentMessagesAreRecordedInOrder)
{
    send("harness_probe", {{"a", 1}, {"b", "text"}, {"c", 0}});
    send("harness_probe", {});
    ASSERT_TRUE(recorder().wait_for("harness_probe", 2));
    const std::vector<RecordedMessage> sent = recorder().of_type("harness_probe");
    ASSERT_EQ(sent.size(), 2u) << recorder().dump();
    EXPECT_EQ(render(sent[0]), "harness_probe{a=1,b=\"text\",c=0}");
    EXPECT_EQ(render(sent[1]), "harness_probe{}");
    recorder().clear();
    EXPECT_TRUE(recorder().messages().empty());
}

TEST_F(TerminalHarness, RequestReturnsTheReceiversAnswer)
{
    config().set("host", "online_client_mode", 1);
    const Reply reply = request("online_client_get_operation_mode");
    EXPECT_TRUE(reply.replied) << reply.text();
    EXPECT_EQ(reply.int_field("mode"), 1) << reply.text();
    ASSERT_TRUE(recorder().wait_for("online_client_get_operation_mode", 1));
    EXPECT_TRUE(recorder().of_type("online_client_get_operation_mode").at(0).sync);
}

TEST_F(TerminalHarness, ExpectCommandsReadsTheDeviceTexts)
{
    const int device = ::open(pty().slave_path().c_str(), O_RDWR);
    ASSERT_GE(device, 0);
    write_all(device, "d\0f12\0"s);
    EXPECT_TRUE(expect_commands({"d", "f12"}));
    ::close(device);
}

TEST_F(TerminalHarness, DefaultsAreInPlace)
{
    std::string path;
    EXPECT_TRUE(config().get("catra", "device_path", &path));
    EXPECT_EQ(path, pty().slave_path());
    EXPECT_EQ(ac::config_util::get_int("catra_timeout", true), kCatraTimeout);
    EXPECT_EQ(ac::util::get_time().tv_sec, start_time().tv_sec);
    EXPECT_EQ(database().query("SELECT id FROM portals ORDER BY id"),
              (standin::Rows{{"1"}, {"2"}}));
    EXPECT_EQ(database().query("SELECT COUNT(*) FROM access_logs"), (standin::Rows{{"2"}}));
    EXPECT_EQ(setup_commands(), (std::vector<std::string>{"d", "f12", "g13", "s14", "t15", "e"}));
}

}  // namespace
}  // namespace catra_test
