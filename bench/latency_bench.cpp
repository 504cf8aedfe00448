// Latency and idle figures of the loaded plug-in, each beside its floor: the
// same pseudo-terminal and the same bus driven by a minimal loop that only
// reads and publishes, or receives and writes.
//
//   event latency    a letter written at the controller side until its
//                    "catra_event" is seen on the bus (the observer runs in
//                    the sending thread, at the moment of the send);
//   release latency  "liberate_catra" sent until its release text is read
//                    at the controller side;
//   idle wake-ups    per second, with "select_timeout" 1000 and the queue's
//                    keep-alive period 1000 ms, nothing happening: the
//                    context switches of the whole process (one per pass of
//                    the event loop's wait and one per idle period of the
//                    queue are due).
//
// The floors run first, then the plug-in is loaded (once per process) and
// measured on the same line and bus.
//
//   latency_bench [RUNS] [IDLE_SECONDS]     defaults: 10000 runs, 10 s
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ac/ac.h"
#include "ac_dal/ac_dal.h"
#include "plugin_configuration.h"
#include "simulator/controller_pty.h"
#include "standin/standin.h"

namespace {

using SteadyClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kWait{5000};
constexpr int kWarmUp = 500;

[[noreturn]] void fail(const std::string& text)
{
    std::fprintf(stderr, "latency_bench: %s\n", text.c_str());
    std::fflush(nullptr);
    standin::end_process(1);
}

long long nanos_since(SteadyClock::time_point start, SteadyClock::time_point end)
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(end - start).count();
}

// ---------------------------------------------------------------- set-up

void configure(const std::string& device_path)
{
    simulator::write_plugin_configuration(standin::Config::instance(), device_path);

    standin::Database& db = standin::Database::instance();
    db.open(":memory:");
    db.seed(1, static_cast<int>(std::time(nullptr)));
}

// ---------------------------------------------------------------- the bus side

// Counts the "catra_event" messages and keeps the time of the last one.
class EventWatch {
public:
    EventWatch()
    {
        standin::Bus::instance().subscribe([this](const ac::Message& msg, bool) {
            if (msg.type() != "catra_event")
                return;
            const auto now = SteadyClock::now();
            {
                std::lock_guard<std::mutex> lock(mutex_);
                last_ = now;
                ++count_;
            }
            seen_.notify_all();
        });
    }
    long count()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return count_;
    }
    // The time of the event that made the count exceed `before`.
    SteadyClock::time_point wait_beyond(long before)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!seen_.wait_for(lock, kWait, [&] { return count_ > before; }))
            fail("no \"catra_event\" within 5 s");
        return last_;
    }

private:
    std::mutex mutex_;
    std::condition_variable seen_;
    long count_ = 0;
    SteadyClock::time_point last_;
};

struct Figures {
    long long median_ns = 0;
    long long p99_ns = 0;
};

Figures summarise(std::vector<long long> samples)
{
    std::sort(samples.begin(), samples.end());
    Figures figures;
    figures.median_ns = samples[samples.size() / 2];
    figures.p99_ns = samples[(samples.size() * 99 + 99) / 100 - 1];
    return figures;
}

// A letter written until its "catra_event" is seen.
Figures event_latency(simulator::ControllerPty& line, EventWatch& watch, char letter, int runs)
{
    std::vector<long long> samples;
    samples.reserve(static_cast<std::size_t>(runs));
    for (int i = -kWarmUp; i < runs; ++i) {
        const long before = watch.count();
        const auto start = SteadyClock::now();
        line.write_event(letter);
        const auto seen = watch.wait_beyond(before);
        if (i >= 0)
            samples.push_back(nanos_since(start, seen));
    }
    return summarise(samples);
}

void send_release()
{
    auto* msg = new ac::Message("liberate_catra", 0, nullptr);
    msg->add_string("catra_direction", "clockwise");
    msg->add_string("uuid", "bench");
    msg->add_int("catra_reason", 1);
    ac::PostOffice::send_message(msg);
}

// "liberate_catra" sent until the release text is read at the controller.
Figures release_latency(simulator::ControllerPty& line, int runs)
{
    std::vector<long long> samples;
    samples.reserve(static_cast<std::size_t>(runs));
    for (int i = -kWarmUp; i < runs; ++i) {
        const auto start = SteadyClock::now();
        send_release();
        const std::optional<std::string> text = line.read_command(kWait);
        const auto end = SteadyClock::now();
        if (!text || *text != "r5")
            fail("release text \"r5\" not read; got \"" + text.value_or("<nothing>") + "\"");
        if (i >= 0)
            samples.push_back(nanos_since(start, end));
    }
    return summarise(samples);
}

long context_switches()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_nvcsw + usage.ru_nivcsw;
}

// Context switches of the process per second while nothing happens for
// `seconds`.
double idle_wake_ups(int seconds)
{
    const long switches_before = context_switches();
    const auto start = SteadyClock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const double elapsed = static_cast<double>(nanos_since(start, SteadyClock::now())) / 1e9;
    // The measuring thread's own sleep is one switch.
    return static_cast<double>(context_switches() - switches_before - 1) / elapsed;
}

// ---------------------------------------------------------------- the floor

// The least a plug-in could do: one thread waits on the controller with the
// same time-out and publishes each letter; one queue receives the release
// request and writes its text. Both feed the watchdog as module "floor".
class Floor {
public:
    explicit Floor(const std::string& device_path)
    {
        fd_ = ::open(device_path.c_str(), O_RDWR | O_NOCTTY);
        if (fd_ < 0)
            fail("floor: cannot open " + device_path);
        instance_ = this;
        ac::MessageListener row{"liberate_catra", transfer, true};
        plugin_.add_messages_interested(&row, 1);
        ac::MessageListener handler{"liberate_catra", write_release, true};
        queue_.listen(&handler, 1);
        events_ = std::thread([this] { read_and_publish(); });
        queue_thread_ = std::thread([this] { queue_.process(1000, keep_alive); });
    }
    // Ends both loops: the event loop on a letter of its own, the queue by
    // the host's stop (no other queue exists yet).
    void stop(simulator::ControllerPty& line)
    {
        line.write_event('\x7f');
        events_.join();
        standin::Bus::instance().stop_queues();
        queue_thread_.join();
        ::close(fd_);
    }

private:
    static void keep_alive() { ac::watchdog::keep_alive("floor"); }
    static void transfer(ac::Message* msg)
    {
        msg->set_handled();
        msg->transfer(&instance_->queue_);
    }
    static void write_release(ac::Message*)
    {
        if (::write(instance_->fd_, "r5", 3) != 3)
            fail("floor: write failed");
    }
    void read_and_publish()
    {
        for (;;) {
            keep_alive();
            fd_set read_set;
            FD_ZERO(&read_set);
            FD_SET(fd_, &read_set);
            timeval timeout{1, 0};
            const int ready = select(fd_ + 1, &read_set, nullptr, nullptr, &timeout);
            if (ready < 0)
                fail("floor: select failed");
            if (ready == 0)
                continue;
            unsigned char buffer[2] = {0, 0};
            if (::read(fd_, buffer, sizeof buffer) <= 0)
                fail("floor: read failed");
            if (buffer[0] == 0x7f)
                return;
            auto* msg = new ac::Message("catra_event", 0, nullptr);
            msg->add_int("event", static_cast<int>(buffer[0]) - 0x61);
            ac::PostOffice::send_message(msg);
        }
    }

    static Floor* instance_;
    int fd_ = -1;
    ac::Plugin plugin_;
    ac::MessageEnqueuer queue_;
    std::thread events_;
    std::thread queue_thread_;
};

Floor* Floor::instance_ = nullptr;

std::string micros(long long ns)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f us", static_cast<double>(ns) / 1000.0);
    return text;
}

void print_row(const char* name, const Figures& plugin, const Figures& floor)
{
    std::printf("%-38s %12s %12s   %12s %12s\n", name, micros(plugin.median_ns).c_str(),
                micros(plugin.p99_ns).c_str(), micros(floor.median_ns).c_str(),
                micros(floor.p99_ns).c_str());
}

}  // namespace

int main(int argc, char** argv)
{
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10000;
    const int idle_seconds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 10;

    standin::install_services();
    standin::Logs::instance().set_echo(false);
    simulator::ControllerPty line;
    configure(line.slave_path());
    EventWatch watch;

    // The floor, on the same line and bus.
    auto* floor = new Floor(line.slave_path());
    const Figures floor_event = event_latency(line, watch, 'l', runs);
    const Figures floor_release = release_latency(line, runs);
    const double floor_idle = idle_wake_ups(idle_seconds);
    floor->stop(line);

    // The plug-in.
    standin::PluginHost host(CATRA_PLUGIN_PATH);
    std::string error;
    if (!host.init(&error))
        fail("init failed: " + error);
    if (!host.start())
        fail("the plug-in registered no run function");
    for (const char* setup : {"d", "f12", "g13", "s14", "t15", "e", "i"}) {
        const std::optional<std::string> text = line.read_command(kWait);
        if (!text || *text != setup)
            fail(std::string("set-up command \"") + setup + "\" not read");
    }
    if (!standin::Bus::instance().wait_idle(kWait))
        fail("the bus did not become idle after the set-up");

    const Figures ready_event = event_latency(line, watch, 'l', runs);
    // A turn while blocked: an access event stored, the event published,
    // the turn refused; nothing is written back.
    const Figures turn_event = event_latency(line, watch, 'h', runs);
    const Figures release = release_latency(line, runs);
    if (!standin::Bus::instance().wait_idle(kWait))
        fail("the bus did not become idle after the runs");
    const double idle = idle_wake_ups(idle_seconds);

    std::printf("catra latency, %d runs each (after %d warm-up runs)\n", runs, kWarmUp);
    std::printf("%-38s %12s %12s   %12s %12s\n", "", "median", "p99", "floor median", "floor p99");
    print_row("event latency, l (ready) -> catra_event", ready_event, floor_event);
    print_row("event latency, h (turn)  -> catra_event", turn_event, floor_event);
    print_row("release latency, liberate_catra -> r5", release, floor_release);
    std::printf("\nidle, %d s, select_timeout 1000 ms, queue keep-alive period 1000 ms\n",
                idle_seconds);
    std::printf("%-38s %12s %12s\n", "", "plug-in", "floor");
    std::printf("%-38s %12.2f %12.2f\n", "context switches per second (process)", idle, floor_idle);
    std::fflush(nullptr);
    standin::end_process(0);
}
