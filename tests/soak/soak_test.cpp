// Soak: the running plug-in under load from every side at once, then an
// accounting of every turn against what the controller side reported.
//
// For CATRA_SOAK_SECONDS (default 60) three threads drive the loaded plug-in:
//   - the controller writes event letters back to back (letter and NUL in one
//     write), turns (h, i) most of them, keeping at most kLetterWindow letters
//     ahead of the plug-in's event thread;
//   - another module sends releases, exit-request button presses (which start
//     exit-request workers), GPIO levels, enable and disable, configuration
//     changes and queries, with a synchronous query every few messages so the
//     plug-in's queue stays short;
//   - the controller side reads every command the plug-in writes.
// Then, once the event thread has read every letter: each turn letter gave
// exactly one "catra_event" and one access event, and counted or refused turns
// add up to the turn letters of each side; the bus and the queues are idle;
// the plug-in still runs and still reads the controller.
//
// Disabling the turnstile does not stop the event thread reading letters, so
// the accounting holds across it. Letters other than turns may be dropped by
// the time filter (k, j); they are not counted.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "terminal_test.h"

namespace catra_test {
namespace {

using std::chrono::milliseconds;
using Kind = standin::LogLine::Kind;

// Letters written and not yet read by the event thread, at most: half the
// pseudo-terminal's input buffer would hold, so the writes never block.
constexpr long kLetterWindow = 256;
// Messages between two synchronous queries of the module thread.
constexpr int kMessagesPerQuery = 16;
// Bound of the waits on the plug-in; reached only when something is wrong.
constexpr milliseconds kCatchUp{120000};

long environment_number(const char* name, long fallback)
{
    const char* text = std::getenv(name);
    const long value = text == nullptr ? 0 : std::atol(text);
    return value > 0 ? value : fallback;
}

class Soak : public TerminalTest {
protected:
    void SetUp() override
    {
        TerminalTest::SetUp();
        standin::Logs::instance().set_echo(false);
        clock().set_real();  // so that the time filter lets some k and j through
    }
    void TearDown() override
    {
        standin::Logs::instance().unsubscribe(log_subscription_);
        bus().unsubscribe(bus_subscription_);
        TerminalTest::TearDown();
    }

    // What the plug-in did, counted as it happens (in the plug-in's threads).
    void observe()
    {
        log_subscription_ =
            standin::Logs::instance().subscribe([this](const standin::LogLine& line) {
                letters_read_ += line.function == "new_catra_event";
                buzzes_ += line.kind == Kind::host && line.text == "buzzer";
                for (int side = 0; side < 2; ++side)
                    refused_[side] += line.text == kRefusals[side];
            });
        bus_subscription_ = bus().subscribe([this](const ac::Message& msg, bool) {
            int event = -1;
            if (msg.type() == "catra_event" && msg.get_int("event", &event) &&
                (event == 7 || event == 8))
                ++published_[event - 7];
        });
    }

    // The controller: letters back to back, at most kLetterWindow ahead.
    void write_letters(unsigned seed)
    {
        std::mt19937 random(seed);
        const std::string letters = "abcdeeffgghhhhhhhiiiiiiijjkklm";
        std::uniform_int_distribution<std::size_t> pick(0, letters.size() - 1);
        while (!stop_) {
            if (!eventually([&] { return stop_ || written_ - letters_read_ < kLetterWindow; },
                            kCatchUp)) {
                controller_problem_ = "the event thread read no letter for a long time";
                break;
            }
            const char letter = letters[pick(random)];
            try {
                pty().write_event(letter);
            } catch (const std::exception& e) {
                controller_problem_ = std::string("controller write failed: ") + e.what();
                break;
            }
            ++written_;
            turn_letters_[0] += letter == 'h';
            turn_letters_[1] += letter == 'i';
        }
        stop_ = true;
    }

    // Another module of the terminal: messages picked at random from a list
    // in which releases, exit-request presses (GPIOs 40 to 42), GPIO levels
    // and enabling come most often.
    void send_messages(unsigned seed)
    {
        using Message = std::pair<const char*, Fields>;
        const auto change = [](const char* module, const char* param, const char* value) {
            return Message{"config_param_set",
                           {{"module", module}, {"param", param}, {"value", value}}};
        };
        const std::vector<Message> traffic = {
            {"liberate_catra", {{"catra_direction", "clockwise"}, {"uuid", "r"}}},
            {"liberate_catra", {{"catra_direction", "anticlockwise"}, {"catra_reason", 2}}},
            {"liberate_catra", {{"catra_direction", "both"}, {"uuid", "b"}, {"catra_reason", 3}}},
            {"liberate_catra", {{"catra_direction", "always"}}},
            {"gpio_notified", {{"gpio", 40}, {"value", 0}}},
            {"gpio_notified", {{"gpio", 41}, {"value", 0}}},
            {"gpio_notified", {{"gpio", 42}, {"value", 0}}},
            {"gpio_notified", {{"gpio", kFi1Gpio}, {"value", 1}}},
            {"gpio_notified", {{"gpio", kSol2Gpio}, {"value", 1}}},
            {"catra_set_catra_enabled", {{"enabled", 0}}},
            {"catra_set_catra_enabled", {{"enabled", 1}}},
            {"catra_set_catra_enabled", {{"enabled", 1}}},
            change("catra", "operation_mode", "entrance_open"),
            change("catra", "operation_mode", "blocked"),
            change("", "exception_mode", "1"),
            change("", "exception_mode", "0"),
            {"catra_open_collector", {}},
            {"catra_set_solenoid", {{"id", 1}, {"value", 1}}},
            {"catra_photo_sensor", {{"id", 1}}},
        };
        std::mt19937 random(seed);
        std::uniform_int_distribution<std::size_t> pick(0, traffic.size() - 1);
        for (long sent = 1; !stop_; ++sent) {
            const Message& message = traffic[pick(random)];
            send(message.first, message.second);
            // Answered only once the queue has handled everything sent before
            // it: this keeps the queue short.
            if (sent % kMessagesPerQuery == 0 && request("catra_state") == "unreplied{}") {
                module_problem_ = "a query was not answered";
                stop_ = true;
            }
        }
    }

    std::atomic<bool> stop_{false};
    // Written by the traffic threads, read once they have ended.
    std::string controller_problem_, module_problem_;
    std::atomic<long> letters_read_{0}, buzzes_{0}, written_{0}, commands_read_{0};
    std::atomic<long> refused_[2] = {{0}, {0}}, published_[2] = {{0}, {0}};
    long turn_letters_[2] = {0, 0};  // written by the controller thread
    int log_subscription_ = 0;
    int bus_subscription_ = 0;
};

TEST_F(Soak, EventThreadQueueAndExitRequestWorkersAtOnce)
{
    const long duration_s = environment_number("CATRA_SOAK_SECONDS", 60);
    const auto seed = static_cast<unsigned>(
        environment_number("CATRA_SOAK_SEED", static_cast<long>(std::random_device{}() >> 1)));
    std::printf("soak: %ld s, seed %u (CATRA_SOAK_SEED repeats the traffic's choices)\n",
                duration_s, seed);

    ASSERT_TRUE(run_plugin());
    ASSERT_TRUE(bus().wait_idle());
    observe();

    // The controller side reads every command, so the plug-in's writes never
    // block.
    std::atomic<bool> reading{true};
    std::thread reader([&] {
        while (reading)
            commands_read_ += pty().read_command(milliseconds(20)).has_value();
    });
    std::thread controller([this, seed] { write_letters(seed); });
    std::thread module([this, seed] { send_messages(seed + 1); });
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(duration_s);
    while (std::chrono::steady_clock::now() < end && !stop_) {
        std::this_thread::sleep_for(milliseconds(200));
        recorder().clear();  // the fixture's recorders would keep everything
        logs().clear();
    }
    stop_ = true;
    controller.join();
    module.join();

    const bool all_read = eventually([&] { return letters_read_ == written_; }, kCatchUp);
    // The queue, the delivery thread and the exit-request workers are done.
    const bool quiet = bus().wait_idle(kCatchUp);
    recorder().clear();
    const long counted[2] = {static_cast<long>(database().counter("left_turns")),
                             static_cast<long>(database().counter("right_turns"))};
    std::printf(
        "soak: %ld letters written (%ld h, %ld i), %ld read; %ld commands read; %ld exit-request "
        "buzzes; turns counted %ld left, %ld right; refused %ld left, %ld right\n",
        written_.load(), turn_letters_[0], turn_letters_[1], letters_read_.load(),
        commands_read_.load(), buzzes_.load(), counted[0], counted[1], refused_[0].load(),
        refused_[1].load());

    EXPECT_EQ(controller_problem_ + module_problem_, "");
    EXPECT_TRUE(all_read) << "the event thread did not read every letter";
    EXPECT_TRUE(quiet) << "the bus and the queues are still busy after the traffic";
    const char* const names[2] = {"TURN LEFT", "TURN RIGHT"};
    for (int side = 0; side < 2; ++side) {
        SCOPED_TRACE(names[side]);
        // One "catra_event" and one access event per turn letter; every turn
        // counted or refused, on its own side.
        EXPECT_EQ(published_[side], turn_letters_[side]);
        EXPECT_EQ(database().query("SELECT COUNT(*) FROM access_events WHERE name = '" +
                                   std::string(names[side]) + "'"),
                  (standin::Rows{{turn_letters_[side]}}));
        EXPECT_EQ(counted[side] + refused_[side], turn_letters_[side]);
    }

    // Still alive: the run thread serves the queue and the event thread reads.
    EXPECT_TRUE(plugin_host().running());
    pty().write_event('l');
    EXPECT_TRUE(eventually([&] { return letters_read_ > written_; }))
        << "the event thread no longer reads the controller";
    EXPECT_NE(request("catra_state"), "unreplied{}");
    reading = false;
    reader.join();
}

}  // namespace
}  // namespace catra_test
