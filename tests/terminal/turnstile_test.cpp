// The simulated turnstile controller, driven from the plug-in's side of the
// line the way the plug-in drives it: command texts with their NUL written to
// the device, event letters read back two bytes at a time.
#include "simulator/turnstile.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

namespace catra_test {
namespace {

using namespace std::chrono_literals;
using simulator::Side;

// Bound of every wait; only reached when a test fails.
constexpr auto kWait = 5000ms;

class SimulatedTurnstile : public ::testing::Test {
protected:
    void SetUp() override
    {
        device_ = ::open(line_.slave_path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_GE(device_, 0);
        turnstile_.start();
    }
    void TearDown() override
    {
        turnstile_.stop();
        ::close(device_);
    }

    // As the plug-in writes a command: the text and its NUL in one write.
    void write_command(const std::string& text)
    {
        const std::string bytes = text + '\0';
        ASSERT_EQ(::write(device_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    // The next event as the plug-in's event loop reads it: one read of two
    // bytes. Empty when nothing came within the bound.
    std::string read_event(std::chrono::milliseconds timeout = kWait)
    {
        pollfd watched{device_, POLLIN, 0};
        if (::poll(&watched, 1, static_cast<int>(timeout.count())) != 1)
            return "";
        char bytes[2] = {0, 0};
        const ssize_t got = ::read(device_, bytes, sizeof bytes);
        return got > 0 ? std::string(bytes, static_cast<std::size_t>(got)) : "";
    }

    // Writes the command and returns the letter of the event it was answered
    // with; "e" (enable) answered with l is used after commands that have no
    // answer, to show that nothing came before it.
    std::string answer_to(const std::string& text)
    {
        write_command(text);
        const std::string event = read_event();
        return event.size() == 2 && event[1] == '\0' ? event.substr(0, 1) : "bad:" + event;
    }

    std::vector<std::string> seen()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return seen_;
    }

    void record(const std::string& what)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        seen_.push_back(what);
    }

    simulator::ControllerPty line_;
    std::mutex mutex_;
    std::vector<std::string> seen_;
    simulator::Turnstile turnstile_{
        line_, simulator::Turnstile::Listener{
                   [this](const std::string& text) { record("command " + text); },
                   [this](char letter) { record(std::string("event ") + letter); },
                   [this](Side side, bool turned) {
                       record(std::string(side == Side::left ? "push left " : "push right ") +
                              (turned ? "turns" : "locked"));
                   },
                   [this](const std::string& reason) { record("failure " + reason); }}};
    int device_ = -1;
};

TEST_F(SimulatedTurnstile, AnswersEachCommandWithItsLetterAndANul)
{
    write_command("d");
    EXPECT_EQ(read_event(), std::string("m\0", 2));
    EXPECT_EQ(answer_to("e"), "l");
    EXPECT_EQ(answer_to("i"), "a");
    EXPECT_EQ(answer_to("al"), "b");
    EXPECT_EQ(answer_to("ar"), "c");
    EXPECT_EQ(answer_to("ab"), "d");
    EXPECT_EQ(answer_to("l5"), "e");
    EXPECT_EQ(answer_to("r5"), "f");
    EXPECT_EQ(answer_to("b5"), "g");
}

TEST_F(SimulatedTurnstile, PinAssignmentsAndUnknownTextsHaveNoAnswer)
{
    for (const char* text : {"f12", "g13", "s14", "t15", "x", "", "ii", "r", "r-1", "lx"})
        write_command(text);
    EXPECT_EQ(answer_to("e"), "l");
    EXPECT_EQ(seen(),
              (std::vector<std::string>{"command f12", "command g13", "command s14", "command t15",
                                        "command x", "command ", "command ii", "command r",
                                        "command r-1", "command lx", "command e", "event l"}));
}

TEST_F(SimulatedTurnstile, CommandsWrittenTogetherAreAnsweredInOrder)
{
    // Several commands in one write, as a burst of set-up commands may arrive.
    const std::string burst("d\0i\0ab\0", 7);
    ASSERT_EQ(::write(device_, burst.data(), burst.size()), static_cast<ssize_t>(burst.size()));
    EXPECT_EQ(read_event(), std::string("m\0", 2));
    EXPECT_EQ(read_event(), std::string("a\0", 2));
    EXPECT_EQ(read_event(), std::string("d\0", 2));
}

TEST_F(SimulatedTurnstile, APersonTurnsOnlyWhereTheTurnstileIsFree)
{
    EXPECT_EQ(answer_to("i"), "a");
    EXPECT_FALSE(turnstile_.push(Side::left));
    EXPECT_FALSE(turnstile_.push(Side::right));

    EXPECT_EQ(answer_to("r5"), "f");
    EXPECT_FALSE(turnstile_.push(Side::left));
    EXPECT_TRUE(turnstile_.push(Side::right));
    EXPECT_EQ(read_event(), std::string("i\0", 2));
    // The turn ended the release: the side is locked again, no give-up comes.
    EXPECT_FALSE(turnstile_.release_deadline().has_value());
    EXPECT_FALSE(turnstile_.push(Side::right));

    EXPECT_EQ(answer_to("l5"), "e");
    EXPECT_TRUE(turnstile_.push(Side::left));
    EXPECT_EQ(read_event(), std::string("h\0", 2));

    EXPECT_EQ(answer_to("b5"), "g");
    EXPECT_TRUE(turnstile_.push(Side::right));
    EXPECT_EQ(read_event(), std::string("i\0", 2));
    EXPECT_FALSE(turnstile_.push(Side::left));

    EXPECT_EQ(answer_to("e"), "l");
    EXPECT_EQ(seen(),
              (std::vector<std::string>{"command i",         "event a",          "push left locked",
                                        "push right locked", "command r5",       "event f",
                                        "push left locked",  "push right turns", "event i",
                                        "push right locked", "command l5",       "event e",
                                        "push left turns",   "event h",          "command b5",
                                        "event g",           "push right turns", "event i",
                                        "push left locked",  "command e",        "event l"}));
}

TEST_F(SimulatedTurnstile, APermanentModeStaysAfterATurn)
{
    EXPECT_EQ(answer_to("ar"), "c");
    EXPECT_TRUE(turnstile_.push(Side::right));
    EXPECT_EQ(read_event(), std::string("i\0", 2));
    EXPECT_TRUE(turnstile_.push(Side::right));
    EXPECT_EQ(read_event(), std::string("i\0", 2));
    EXPECT_FALSE(turnstile_.push(Side::left));

    EXPECT_EQ(answer_to("ab"), "d");
    EXPECT_TRUE(turnstile_.push(Side::left));
    EXPECT_EQ(read_event(), std::string("h\0", 2));
    // A release on top of the mode frees its side too, until it ends.
    EXPECT_EQ(answer_to("al"), "b");
    EXPECT_EQ(answer_to("r5"), "f");
    const simulator::FreeSides free = turnstile_.free_sides();
    EXPECT_TRUE(free.left);
    EXPECT_TRUE(free.right);
}

TEST_F(SimulatedTurnstile, NobodyTurnsAndTheReleaseIsGivenUp)
{
    const auto requested = std::chrono::steady_clock::now();
    EXPECT_EQ(answer_to("l1"), "e");
    const auto deadline = turnstile_.release_deadline();
    ASSERT_TRUE(deadline.has_value());
    EXPECT_GE(*deadline, requested + 1s);
    EXPECT_EQ(read_event(), std::string("j\0", 2));
    EXPECT_GE(std::chrono::steady_clock::now(), *deadline);
    EXPECT_FALSE(turnstile_.release_deadline().has_value());
    EXPECT_FALSE(turnstile_.push(Side::left));

    // A release time of 0 gives up at once.
    EXPECT_EQ(answer_to("r0"), "f");
    EXPECT_EQ(read_event(), std::string("j\0", 2));
}

TEST_F(SimulatedTurnstile, ALaterCommandEndsThePendingRelease)
{
    EXPECT_EQ(answer_to("r5"), "f");
    EXPECT_TRUE(turnstile_.release_deadline().has_value());
    EXPECT_EQ(answer_to("i"), "a");
    EXPECT_FALSE(turnstile_.release_deadline().has_value());
    EXPECT_FALSE(turnstile_.push(Side::right));

    // A pin command ends it too, though it has no answer.
    EXPECT_EQ(answer_to("b5"), "g");
    write_command("f12");
    EXPECT_EQ(answer_to("e"), "l");
    EXPECT_FALSE(turnstile_.release_deadline().has_value());
    EXPECT_FALSE(turnstile_.push(Side::left));
}

TEST_F(SimulatedTurnstile, ReportedLettersArriveOneEventPerRead)
{
    turnstile_.report("fiz");
    EXPECT_EQ(read_event(), std::string("f\0", 2));
    EXPECT_EQ(read_event(), std::string("i\0", 2));
    EXPECT_EQ(read_event(), std::string("z\0", 2));
    // Reporting changes nothing at the turnstile.
    EXPECT_FALSE(turnstile_.push(Side::right));
}

TEST_F(SimulatedTurnstile, StopsCleanlyAndOnlyOnce)
{
    EXPECT_EQ(answer_to("i"), "a");
    turnstile_.stop();
    turnstile_.stop();
    // Stopped, it still answers a person's push.
    EXPECT_FALSE(turnstile_.push(Side::left));
    EXPECT_EQ(seen(), (std::vector<std::string>{"command i", "event a", "push left locked"}));
}

}  // namespace
}  // namespace catra_test
