// The controller's set-up by init: what each failure reports to the host,
// what it has done to the controller by then, and that a failed set-up
// leaves the plug-in inert.
#include <cerrno>
#include <ostream>
#include <string>
#include <vector>

#include "terminal_test.h"

namespace catra_test {
namespace {

using namespace std::string_literals;
using Call = SyscallFaults::Call;

const std::vector<std::string> kSetUpWrites = {"d\0"s,   "f12\0"s, "g13\0"s,
                                               "s14\0"s, "t15\0"s, "e\0"s};

class ControllerSetUp : public TerminalTest {
protected:
    void expect_inert()
    {
        EXPECT_TRUE(plugin_host().plugin().listeners().empty());
        EXPECT_FALSE(start_plugin()) << "a run function was registered";
    }
};

// Rows of the tables below name their tests.
template <typename Row>
std::string row_name(const ::testing::TestParamInfo<Row>& info)
{
    return info.param.name;
}

struct WriteFailure {
    const char* name;
    int passing;  // set-up writes that succeed before the failing one
    int error;
    const char* reported;
    const char* perror_line;
};

void PrintTo(const WriteFailure& row, std::ostream* out)
{
    *out << row.name;
}

class SetUpWriteFailure : public ControllerSetUp,
                          public ::testing::WithParamInterface<WriteFailure> {};

TEST_P(SetUpWriteFailure, StopsThereWithItsTextAndUndoesNothing)
{
    const WriteFailure& row = GetParam();
    SyscallFaults::fail_next(Call::write, row.error, 1, row.passing);

    std::string error;
    {
        StderrCapture capture;
        EXPECT_FALSE(load_plugin(&error));
        EXPECT_NE(capture.text().find(row.perror_line + "\n"s), std::string::npos)
            << capture.text();
    }
    EXPECT_EQ(error, row.reported);

    // Each command up to the failing one was one write; those before it
    // reached the controller and stay in effect.
    const auto tried = kSetUpWrites.begin() + row.passing + 1;
    EXPECT_EQ(SyscallFaults::device_writes(), std::vector<std::string>(kSetUpWrites.begin(), tried))
        << escape_list(SyscallFaults::device_writes());
    std::string delivered;
    for (auto it = kSetUpWrites.begin(); it + 1 != tried; ++it)
        delivered += *it;
    if (!delivered.empty()) {
        EXPECT_EQ(pty().read_bytes(delivered.size(), kWait), delivered);
    }
    EXPECT_GE(SyscallFaults::device_fd(), 0);
    EXPECT_FALSE(SyscallFaults::device_closed()) << "the device was closed";
    expect_inert();
}

INSTANTIATE_TEST_SUITE_P(
    EachStep, SetUpWriteFailure,
    ::testing::Values(
        WriteFailure{"Disable", 0, EIO, "Unable to disable: Input/output error",
                     "Nao foi possivel desabilitar o Catra: Input/output error"},
        WriteFailure{"PinFi1", 1, EINVAL, "Unable to configure pin fi1: Invalid argument",
                     "Nao foi possivel configurar a catraca com o comando: f12: Invalid argument"},
        WriteFailure{"PinFi2", 2, ENOSPC, "Unable to configure pin fi2: No space left on device",
                     "Nao foi possivel configurar a catraca com o comando: g13: No space left on "
                     "device"},
        WriteFailure{"PinSol1", 3, EBUSY, "Unable to configure pin sol1: Device or resource busy",
                     "Nao foi possivel configurar a catraca com o comando: s14: Device or "
                     "resource busy"},
        WriteFailure{"PinSol2", 4, EAGAIN,
                     "Unable to configure pin sol2: Resource temporarily unavailable",
                     "Nao foi possivel configurar a catraca com o comando: t15: Resource "
                     "temporarily unavailable"},
        WriteFailure{"Enable", 5, EPERM, "Unable to enable: Operation not permitted",
                     "Nao foi possivel configurar a catraca com o comando: e: Operation not "
                     "permitted"}),
    row_name<WriteFailure>);

}  // namespace
}  // namespace catra_test
