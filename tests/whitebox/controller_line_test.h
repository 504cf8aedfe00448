// The fixture of the white-box tests that write to the controller: the
// plug-in's code linked in, with the fixture's controller line opened as its
// device, as the set-up leaves it.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include "catra_internal.h"
#include "terminal_test.h"

namespace catra_test {

class ControllerLineTest : public TerminalTest {
protected:
    void SetUp() override
    {
        TerminalTest::SetUp();
        catra_fd = ::open(pty().slave_path().c_str(), O_RDWR);
        ASSERT_GE(catra_fd, 0);
        catra_fd_closed = false;
    }
    void TearDown() override
    {
        if (!catra_fd_closed) {
            ::close(catra_fd);
        }
        TerminalTest::TearDown();
    }
};

}  // namespace catra_test
