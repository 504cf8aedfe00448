// The simulated controller answers a release only for a whole number of
// seconds: a malformed time gets no answer and frees nothing.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "simulator/turnstile.h"

namespace {

TEST(Turnstile, AReleaseWithAMalformedTimeIsNotAnswered)
{
    simulator::ControllerPty line;
    simulator::Turnstile turnstile(line);
    turnstile.start();
    const int device = ::open(line.slave_path().c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(device, 0);
    // The answers come in the order of the commands: "i" is answered after
    // the malformed releases were read.
    const char commands[] = "r-1\0rx\0r\0r5 \0b+1\0i\0l5";
    ASSERT_EQ(::write(device, commands, sizeof commands), static_cast<ssize_t>(sizeof commands));
    std::string answers;
    pollfd readable{device, POLLIN, 0};
    while (answers.size() < 4 && ::poll(&readable, 1, 10000) == 1) {
        char bytes[8];
        const ssize_t got = ::read(device, bytes, sizeof bytes);
        answers.append(bytes, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    }
    EXPECT_EQ(answers, std::string("a\0e\0", 4));
    ::close(device);
}

}  // namespace
