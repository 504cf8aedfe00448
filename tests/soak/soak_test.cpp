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
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
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
using std::chrono::seconds;

// Letters written and not yet read by the event thread, at most: half the
// pseudo-terminal's input buffer would hold, so the writes never block.
constexpr long kLetterWindow = 256;
// Messages between two synchronous queries of the module thread.
constexpr int kMessagesPerQuery = 16;
// Bounds of the waits on the plug-in; reached only when something is wrong.
constexpr milliseconds kCatchUp{120000};
constexpr milliseconds kQuietWait{60000};

constexpr const char* kRefusedLeft = "ERROR: Cannot turn left  while blocked!!";
constexpr const char* kRefusedRight = "ERROR: Cannot turn right while blocked!!";

long environment_number(const char* name, long fallback)
{
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0')
        return fallback;
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    return (end != nullptr && *end == '\0' && value > 0) ? value : fallback;
}

// What the plug-in did, counted as it happens (bus and log observers run in
// the plug-in's threads).
struct Observed {
    std::atomic<long> letters_read{0};  // "Catra event" debug lines
    std::atomic<long> turn_events_left{0};
    std::atomic<long> turn_events_right{0};
    std::atomic<long> ready_events{0};
    std::atomic<long> refused_left{0};
    std::atomic<long> refused_right{0};
    std::atomic<long> messages{0};

    std::mutex mutex;
    std::condition_variable letter_read;
};

// Failures found on the driving threads, reported by the test's thread.
class Problems {
public:
    void add(const std::string& text)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        text_ += text + "\n";
        any_ = true;
    }
    bool any() const { return any_.load(); }
    std::string text() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return text_;
    }

private:
    mutable std::mutex mutex_;
    std::string text_;
    std::atomic<bool> any_{false};
};

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
        if (log_subscription_ != 0)
            logs().unsubscribe(log_subscription_);
        if (bus_subscription_ != 0)
            bus().unsubscribe(bus_subscription_);
        TerminalTest::TearDown();
    }

    void observe()
    {
        log_subscription_ = logs().subscribe([this](const standin::LogLine& line) {
            if (line.kind == standin::LogLine::Kind::debug && line.function == "new_catra_event") {
                {
                    std::lock_guard<std::mutex> lock(observed_.mutex);
                    observed_.letters_read.fetch_add(1);
                }
                observed_.letter_read.notify_all();
            } else if (line.kind == standin::LogLine::Kind::error) {
                if (line.text == kRefusedLeft)
                    observed_.refused_left.fetch_add(1);
                else if (line.text == kRefusedRight)
                    observed_.refused_right.fetch_add(1);
            }
        });
        bus_subscription_ = bus().subscribe([this](const ac::Message& msg, bool) {
            observed_.messages.fetch_add(1);
            if (msg.type() != "catra_event")
                return;
            int event = -1;
            msg.get_int("event", &event);
            if (event == 7)
                observed_.turn_events_left.fetch_add(1);
            else if (event == 8)
                observed_.turn_events_right.fetch_add(1);
            else if (event == 11)
                observed_.ready_events.fetch_add(1);
        });
    }

    // The controller: letters back to back, at most kLetterWindow ahead.
    void write_letters(unsigned seed)
    {
        std::mt19937 random(seed);
        // Turns are most of the traffic; every other letter comes too.
        const std::string letters = "abcdeeffgghhhhhhhiiiiiiijjkklm";
        std::uniform_int_distribution<std::size_t> pick(0, letters.size() - 1);
        long written = 0;
        while (!stop_.load()) {
            {
                std::unique_lock<std::mutex> lock(observed_.mutex);
                const bool caught_up = observed_.letter_read.wait_for(lock, kCatchUp, [&] {
                    return stop_.load() || written - observed_.letters_read.load() < kLetterWindow;
                });
                if (!caught_up) {
                    problems_.add("the event thread read no letter for " +
                                  std::to_string(kCatchUp.count()) + " ms");
                    return;
                }
            }
            if (stop_.load())
                break;
            const char letter = letters[pick(random)];
            try {
                pty().write_event(letter);
            } catch (const std::exception& e) {
                problems_.add(std::string("controller write failed: ") + e.what());
                return;
            }
            ++written;
            if (letter == 'h')
                ++left_letters_;
            else if (letter == 'i')
                ++right_letters_;
        }
        letters_written_ = written;
    }

    // The controller side reads every command, so the plug-in's writes never
    // block.
    void read_commands()
    {
        while (!stop_reading_.load()) {
            if (pty().read_command(milliseconds(20)))
                ++commands_read_;
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
        long sent = 0;
        while (!stop_.load()) {
            const int action = number(0, 99);
            if (action < 30) {
                Fields fields{
                    {"catra_direction", one_of({"clockwise", "anticlockwise", "both", "clockwise",
                                                "anticlockwise", "always", "idle", "sideways"})},
                    {"catra_reason", number(0, 4)}};
                if (number(0, 3) != 0)
                    fields.emplace_back("uuid", "soak-" + std::to_string(sent));
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
                const std::string mode =
                    one_of({"blocked", "entrance_open", "exit_open", "both_open", "blocked"});
                config().set("catra", "operation_mode", mode);
                send("config_param_set",
                     {{"module", "catra"}, {"param", "operation_mode"}, {"value", mode}});
            } else if (action < 77) {
                const std::string gateway = one_of({"clockwise", "anticlockwise"});
                config().set("catra", "gateway", gateway);
                send("config_param_set",
                     {{"module", "catra"}, {"param", "gateway"}, {"value", gateway}});
            } else if (action < 80) {
                const std::string mode = one_of({"0", "1", "2", "0"});
                send("config_param_set",
                     {{"module", ""}, {"param", "exception_mode"}, {"value", mode}});
            } else if (action < 83) {
                const std::string param = one_of({"anti_passback", "daily_reset"});
                const int value = number(0, 1);
                config().set("catra", param, value);
                send("config_param_set",
                     {{"module", "catra"}, {"param", param}, {"value", std::to_string(value)}});
            } else if (action < 88) {
                send("catra_open_collector");
            } else if (action < 93) {
                send("catra_set_solenoid", {{"id", number(0, 3)}, {"value", number(0, 1)}});
            } else {
                send(one_of({"catra_photo_sensor", "catra_solenoid"}), {{"id", number(-1, 3)}});
            }
            ++sent;
            if (sent % kMessagesPerQuery == 0) {
                // Answered only once the queue has handled everything sent
                // before it: this keeps the queue short.
                const Reply reply = request(one_of({"catra_state", "catra_catra_enabled"}));
                if (!reply.replied) {
                    problems_.add("a query was not answered: " + reply.text());
                    return;
                }
            }
        }
        messages_sent_ = sent;
    }

    Observed observed_;
    Problems problems_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> stop_reading_{false};
    long letters_written_ = 0;
    long left_letters_ = 0;
    long right_letters_ = 0;
    long messages_sent_ = 0;
    std::atomic<long> commands_read_{0};
    int log_subscription_ = 0;
    int bus_subscription_ = 0;
};

TEST_F(Soak, EventThreadQueueAndExitRequestWorkersAtOnce)
{
    const long duration_s = environment_number("CATRA_SOAK_SECONDS", 60);
    const unsigned seed = static_cast<unsigned>(
        environment_number("CATRA_SOAK_SEED", static_cast<long>(std::random_device{}() >> 1)));
    std::printf("soak: %ld s, seed %u (CATRA_SOAK_SEED repeats the traffic's choices)\n",
                duration_s, seed);

    ASSERT_TRUE(wait_idle());
    const long live_before = standin::Bus::live_messages();
    const int buzzes_before = standin::Buzzer::instance().count();

    ASSERT_TRUE(load_plugin());
    ASSERT_TRUE(start_plugin());
    ASSERT_TRUE(expect_commands(setup_commands()));
    ASSERT_TRUE(expect_commands({"i"}));
    ASSERT_TRUE(wait_idle());
    observe();

    std::thread reader([this] { read_commands(); });
    std::thread controller([this, seed] { write_letters(seed); });
    std::thread module([this, seed] { send_messages(seed + 1); });

    const auto end = SteadyClock::now() + seconds(duration_s);
    while (SteadyClock::now() < end && !problems_.any()) {
        std::this_thread::sleep_for(milliseconds(200));
        recorder().clear();  // the fixture's recorder would keep every message
    }
    {
        std::lock_guard<std::mutex> lock(observed_.mutex);
        stop_.store(true);
    }
    observed_.letter_read.notify_all();
    controller.join();
    module.join();

    const long turns = left_letters_ + right_letters_;
    const bool all_read = eventually(
        [&] {
            return observed_.turn_events_left.load() + observed_.turn_events_right.load() >= turns;
        },
        kCatchUp);
    // Every message sent has been handled and freed: the queue, the delivery
    // thread and the exit-request workers are done.
    const bool quiet = eventually(
        [&] {
            return wait_idle(milliseconds(100)) && standin::Bus::live_messages() == live_before;
        },
        kCatchUp);
    recorder().clear();

    std::printf(
        "soak: %ld letters written (%ld h, %ld i), %ld read; %ld messages sent, %ld seen on the "
        "bus; %ld commands read; %d exit-request buzzes\n",
        letters_written_, left_letters_, right_letters_, observed_.letters_read.load(),
        messages_sent_, observed_.messages.load(), commands_read_.load(),
        standin::Buzzer::instance().count() - buzzes_before);

    EXPECT_FALSE(problems_.any()) << problems_.text();
    EXPECT_TRUE(all_read) << "the event thread did not read every turn letter";
    EXPECT_TRUE(quiet) << "messages alive after the traffic: "
                       << standin::Bus::live_messages() - live_before;

    // One "catra_event" per turn letter.
    EXPECT_EQ(observed_.turn_events_left.load(), left_letters_);
    EXPECT_EQ(observed_.turn_events_right.load(), right_letters_);
    // One access event per turn letter.
    const auto access_events = [this](const std::string& name) {
        const standin::Rows rows =
            database().query("SELECT COUNT(*) FROM access_events WHERE name = '" + name + "'");
        return rows.empty() || rows[0].empty() ? -1L : std::stol(rows[0][0]);
    };
    EXPECT_EQ(access_events("TURN LEFT"), left_letters_);
    EXPECT_EQ(access_events("TURN RIGHT"), right_letters_);
    // Every turn was counted or refused, on its own side.
    const long left_turns = static_cast<long>(database().counter("left_turns"));
    const long right_turns = static_cast<long>(database().counter("right_turns"));
    EXPECT_EQ(left_turns + observed_.refused_left.load(), left_letters_);
    EXPECT_EQ(right_turns + observed_.refused_right.load(), right_letters_);
    EXPECT_EQ(
        left_turns + right_turns + observed_.refused_left.load() + observed_.refused_right.load(),
        turns);
    std::printf("soak: turns counted %ld left, %ld right; refused %ld left, %ld right\n",
                left_turns, right_turns, observed_.refused_left.load(),
                observed_.refused_right.load());

    // Still alive: the run thread serves the queue and the event thread reads.
    EXPECT_TRUE(plugin_host().running());
    const long ready_before = observed_.ready_events.load();
    pty().write_event('l');
    EXPECT_TRUE(eventually([&] { return observed_.ready_events.load() > ready_before; }, kWait))
        << "the event thread no longer reads the controller";
    EXPECT_TRUE(request("catra_state").replied);

    stop_reading_.store(true);
    reader.join();
}

}  // namespace
}  // namespace catra_test
