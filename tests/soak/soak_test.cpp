// Soak: the running plug-in under load from every side at once, then an
// accounting of every turn against what the controller side reported.
//
// For CATRA_SOAK_SECONDS (default 60) three threads drive the loaded plug-in:
//   - the controller writes event letters back to back (letter and NUL in one
//     write), turns (h, i) among them, keeping at most kLetterWindow letters
//     ahead of the plug-in's event thread;
//   - another module sends releases, exit-request button presses (which start
//     exit-request workers), GPIO levels, enable and disable, configuration
//     changes and queries, with a synchronous query every few messages so the
//     plug-in's queue stays short;
//   - the controller side reads every command the plug-in writes.
// Then, once the event thread has read every letter: each turn letter gave
// exactly one "catra_event" and one access event, and counted or refused turns
// add up to the turn letters of each side; no message outlived the traffic;
// the plug-in still runs and still reads the controller.
//
// Disabling the turnstile ("catra_set_catra_enabled" 0) does not stop the
// event thread reading letters, so the accounting holds across it. Letters
// other than turns may be dropped by the time filter (k, j); they are not
// counted.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "terminal_test.h"

namespace catra_test {
namespace {

using SteadyClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Letters written and not yet read by the event thread, at most: half the
// pseudo-terminal's input buffer would hold, so the writes never block.
constexpr long kLetterWindow = 256;
// Messages between two synchronous queries of the module thread.
constexpr int kMessagesPerQuery = 16;
// Bound of the waits on the plug-in; reached only when something is wrong.
constexpr milliseconds kCatchUp{120000};

long environment_number(const char* name, long fallback)
{
    const long value = std::getenv(name) == nullptr ? 0 : std::atol(std::getenv(name));
    return value > 0 ? value : fallback;
}

class Soak : public TerminalTest {
protected:
    void SetUp() override
    {
        TerminalTest::SetUp();
        logs().set_echo(false);
        // The real clock, so that the time filter lets some k and j through.
        clock().set_real();
    }
    void TearDown() override
    {
        standin::Logs::instance().unsubscribe(log_subscription_);
        bus().unsubscribe(bus_subscription_);
        TerminalTest::TearDown();
    }

    // What the plug-in did, counted as it happens (the observers run in the
    // plug-in's threads).
    void observe()
    {
        log_subscription_ = standin::Logs::instance().subscribe([this](
                                                                    const standin::LogLine& line) {
            if (line.kind == standin::LogLine::Kind::debug && line.function == "new_catra_event")
                ++letters_read_;
            else if (line.kind == standin::LogLine::Kind::host && line.text == "buzzer")
                ++buzzes_;
            else if (line.text == "ERROR: Cannot turn left  while blocked!!")
                ++refused_[0];
            else if (line.text == "ERROR: Cannot turn right while blocked!!")
                ++refused_[1];
        });
        bus_subscription_ = bus().subscribe([this](const ac::Message& msg, bool) {
            ++messages_seen_;
            int event = -1;
            if (msg.type() == "catra_event" && msg.get_int("event", &event) && event >= 7 &&
                event <= 11 && event != 9 && event != 10)
                ++events_[event - 7];  // 7 and 8: turns; 11: ready
        });
    }
    void problem(const std::string& text)
    {
        std::lock_guard<std::mutex> lock(problems_mutex_);
        problems_ += text + "\n";
        stop_ = true;
    }

    // The controller: letters back to back, at most kLetterWindow ahead.
    void write_letters(unsigned seed)
    {
        std::mt19937 random(seed);
        // Turns are most of the traffic; every other letter comes too.
        const std::string letters = "abcdeeffgghhhhhhhiiiiiiijjkklm";
        std::uniform_int_distribution<std::size_t> pick(0, letters.size() - 1);
        while (!stop_) {
            if (!eventually([&] { return stop_ || written_ - letters_read_ < kLetterWindow; },
                            kCatchUp))
                return problem("the event thread read no letter for a long time");
            const char letter = letters[pick(random)];
            try {
                pty().write_event(letter);
            } catch (const std::exception& e) {
                return problem(std::string("controller write failed: ") + e.what());
            }
            ++written_;
            turn_letters_[0] += letter == 'h';
            turn_letters_[1] += letter == 'i';
        }
    }

    // Another module of the terminal.
    void send_messages(unsigned seed)
    {
        std::mt19937 random(seed);
        const auto one_of = [&random](const std::vector<std::string>& texts) {
            return texts[std::uniform_int_distribution<std::size_t>(0, texts.size() - 1)(random)];
        };
        const auto number = [&random](int low, int high) {
            return std::uniform_int_distribution<int>(low, high)(random);
        };
        const auto change = [this](const std::string& module, const std::string& param,
                                   const std::string& value) {
            config().set(module, param, value);
            send("config_param_set", {{"module", module}, {"param", param}, {"value", value}});
        };
        while (!stop_) {
            const int action = number(0, 99);
            if (action < 30) {
                Fields fields{
                    {"catra_direction", one_of({"clockwise", "anticlockwise", "both", "clockwise",
                                                "anticlockwise", "always", "idle", "sideways"})},
                    {"catra_reason", number(0, 4)}};
                if (number(0, 3) != 0)
                    fields.emplace_back("uuid", "soak-" + std::to_string(sent_));
                send("liberate_catra", fields);
            } else if (action < 48) {
                // Exit-request buttons 1 to 3: a press (0), sometimes two
                // buttons together, sometimes a release (1) that is ignored.
                send("gpio_notified", {{"gpio", number(40, 42)}, {"value", number(0, 3) ? 0 : 1}});
                if (number(0, 2) == 0)
                    send("gpio_notified", {{"gpio", number(40, 41)}, {"value", 0}});
            } else if (action < 58) {
                // Photo sensors, solenoids and the open collector's GPIO.
                const int gpios[] = {kFi1Gpio, kFi2Gpio, kSol1Gpio, kSol2Gpio, kCollectorGpio};
                send("gpio_notified", {{"gpio", gpios[number(0, 4)]}, {"value", number(0, 1)}});
            } else if (action < 68) {
                // Enabled most of the time.
                send("catra_set_catra_enabled", {{"enabled", number(0, 2) ? 1 : 0}});
            } else if (action < 73) {
                change("catra", "operation_mode",
                       one_of({"blocked", "entrance_open", "exit_open", "both_open", "blocked"}));
            } else if (action < 77) {
                change("catra", "gateway", one_of({"clockwise", "anticlockwise"}));
            } else if (action < 80) {
                change("", "exception_mode", one_of({"0", "1", "2", "0"}));
            } else if (action < 83) {
                change("catra", one_of({"anti_passback", "daily_reset"}),
                       std::to_string(number(0, 1)));
            } else if (action < 88) {
                send("catra_open_collector");
            } else if (action < 93) {
                send("catra_set_solenoid", {{"id", number(0, 3)}, {"value", number(0, 1)}});
            } else {
                send(one_of({"catra_photo_sensor", "catra_solenoid"}), {{"id", number(-1, 3)}});
            }
            // Answered only once the queue has handled everything sent before
            // it: this keeps the queue short.
            if (++sent_ % kMessagesPerQuery == 0 &&
                !request(one_of({"catra_state", "catra_catra_enabled"})).replied)
                return problem("a query was not answered");
        }
    }

    std::atomic<bool> stop_{false};
    std::mutex problems_mutex_;
    std::string problems_;  // guarded by problems_mutex_
    std::atomic<long> letters_read_{0}, messages_seen_{0}, refused_[2] = {{0}, {0}};
    std::atomic<long> events_[5] = {{0}, {0}, {0}, {0}, {0}};  // by event code - 7
    std::atomic<long> written_{0}, commands_read_{0}, buzzes_{0};
    long turn_letters_[2] = {0, 0};  // left, right: written by the controller thread
    long sent_ = 0;                  // written by the module thread
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

    ASSERT_TRUE(wait_idle());
    ASSERT_TRUE(load_plugin());
    ASSERT_TRUE(start_plugin());
    ASSERT_TRUE(expect_commands(setup_commands()));
    ASSERT_TRUE(expect_commands({"i"}));
    ASSERT_TRUE(wait_idle());
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
    const auto end = SteadyClock::now() + std::chrono::seconds(duration_s);
    while (SteadyClock::now() < end && !stop_) {
        std::this_thread::sleep_for(milliseconds(200));
        recorder().clear();  // the fixture's recorders would keep every message
        logs().clear();
    }
    stop_ = true;
    controller.join();
    module.join();

    const long turns = turn_letters_[0] + turn_letters_[1];
    const bool all_read = eventually([&] { return events_[0] + events_[1] >= turns; }, kCatchUp);
    // Every message sent has been handled: the queue, the delivery thread and
    // the exit-request workers are done.
    const bool quiet = wait_idle(kCatchUp);
    recorder().clear();
    const long counted[2] = {static_cast<long>(database().counter("left_turns")),
                             static_cast<long>(database().counter("right_turns"))};
    std::printf(
        "soak: %ld letters written (%ld h, %ld i), %ld read; %ld messages sent, %ld seen on the "
        "bus; %ld commands read; %ld exit-request buzzes; turns counted %ld left, %ld right; "
        "refused %ld left, %ld right\n",
        written_.load(), turn_letters_[0], turn_letters_[1], letters_read_.load(), sent_,
        messages_seen_.load(), commands_read_.load(), buzzes_.load(), counted[0], counted[1],
        refused_[0].load(), refused_[1].load());

    EXPECT_EQ(problems_, "");
    EXPECT_TRUE(all_read) << "the event thread did not read every turn letter";
    EXPECT_TRUE(quiet) << "the bus and the queues are still busy after the traffic";
    const char* const names[2] = {"TURN LEFT", "TURN RIGHT"};
    for (int side = 0; side < 2; ++side) {
        SCOPED_TRACE(names[side]);
        // One "catra_event" and one access event per turn letter; every turn
        // counted or refused, on its own side.
        EXPECT_EQ(events_[side], turn_letters_[side]);
        EXPECT_EQ(database().query("SELECT COUNT(*) FROM access_events WHERE name = '" +
                                   std::string(names[side]) + "'"),
                  (standin::Rows{{std::to_string(turn_letters_[side])}}));
        EXPECT_EQ(counted[side] + refused_[side], turn_letters_[side]);
    }

    // Still alive: the run thread serves the queue and the event thread reads.
    EXPECT_TRUE(plugin_host().running());
    const long ready_before = events_[4];
    pty().write_event('l');
    EXPECT_TRUE(eventually([&] { return events_[4] > ready_before; }))
        << "the event thread no longer reads the controller";
    EXPECT_TRUE(request("catra_state").replied);
    reading = false;
    reader.join();
}

}  // namespace
}  // namespace catra_test
