// A child process that cannot be started: told by an exception, and no pipe
// to it left open.
#include <gtest/gtest.h>

#include <filesystem>
#include <system_error>

#include "check/child_process.h"

namespace {

TEST(ChildProcess, AProgramThatCannotStartLeavesNoPipeOpen)
{
    const auto open_files = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = open_files();
    EXPECT_THROW(terminal::run_child({"/nonexistent/program"}, std::chrono::seconds(1)),
                 std::system_error);
    EXPECT_EQ(open_files(), before);
}

}  // namespace
