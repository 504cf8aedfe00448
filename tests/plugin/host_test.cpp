// What the plug-in's tests stand on in the stand-in host, one row each: the
// clock's milliseconds, the exception modes and numbers read from the
// configuration, a missing action, a cell's kind, a queue that outlives a
// throwing handler or frees what it still holds, the idle barrier, and a
// plug-in that cannot load.
#include <atomic>
#include <chrono>
#include <climits>
#include <ctime>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ac/config.h"
#include "ac/message_enqueuer.h"
#include "ac/util.h"
#include "ac_dal/ac_dal.h"
#include "terminal_test.h"

namespace catra_test {
namespace {

// Milliseconds are truncated toward zero: the event loop's 100 ms and 500 ms
// filters count whole milliseconds.
TEST(HostClock, MillisecondsAreTruncated)
{
    const struct {
        timespec time;
        int ms;
    } rows[] = {
        {{0, 999'999}, 0}, {{1, 999'999'999}, 1999},  {{-1, 999'500'000}, 0},
        {{-2, 0}, -2000},  {{3'000'000, 0}, INT_MAX}, {{-2'147'484, 999'000'000}, -2'147'483'001},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ac::util::timespec_to_ms(row.time), row.ms)
            << row.time.tv_sec << " s " << row.time.tv_nsec << " ns";
    }
}

// The exception mode's names and numbers; a number that is empty is none.
TEST(HostConfig, ExceptionModesAndNumbersAreRead)
{
    for (const auto& [text, mode] :
         {std::pair{"free", 1}, {"blocked", 2}, {" 2 ", 2}, {"", 0}, {"Free", 0}})
        EXPECT_EQ(ac::config_util::str_to_exception_mode(text), mode) << text;
    standin::Config::instance().set("m", "k", "");
    EXPECT_EQ(thrown_text([] { ac::config_util::get_int("m", "k", true); }),
              "Parameter m.k is not an integer: \"\"");
}

// An action that is not in the store has id 0 and no portals.
TEST(HostData, AMissingActionHasNoIdAndNoPortals)
{
    standin::Database::instance().open(":memory:");
    standin::Database::instance().seed(1, 1000);
    ac_dal::action action;
    EXPECT_TRUE(action.load(3));
    EXPECT_EQ(action.device_portals(1).size(), 2u);
    EXPECT_FALSE(action.load(99));
    EXPECT_EQ(action.id(), 0);
    EXPECT_TRUE(action.device_portals(1).empty());
}

// A query's cells are of the kind SQLite holds, and kinds never compare equal.
TEST(HostData, ACellIsOfTheKindSqliteHolds)
{
    standin::Database::instance().open(":memory:");
    EXPECT_EQ(standin::Database::instance().query("SELECT 1, 2.5, 'catra', NULL, '1'"),
              (standin::Rows{{1, 2.5, "catra", nullptr, "1"}}));
    EXPECT_NE(standin::Cell(1), standin::Cell("1"));
}

std::atomic<int> handled{0};

// A handler that throws, or a type with no handler, is logged; the queue goes
// on with the next message.
TEST(HostQueue, AThrowingHandlerIsLoggedAndTheQueueGoesOn)
{
    LogRecorder logs;
    ac::MessageEnqueuer queue;
    const ac::MessageListener table[] = {
        {"boom", [](ac::Message*) { throw std::runtime_error("no such thing"); }, false},
        {"odd", [](ac::Message*) { throw 5; }, false},
        {"next", [](ac::Message*) { ++handled; }, false}};
    queue.listen(table, 3);
    std::thread runner([&queue] { queue.process(1, [] {}); });
    for (const char* type : {"boom", "odd", "none", "next"})
        queue.enqueue(new ac::Message(type, 0, nullptr), nullptr);
    ASSERT_TRUE(standin::Bus::instance().wait_idle());
    EXPECT_EQ(handled.load(), 1);
    standin::Bus::instance().stop_queues();
    runner.join();
    EXPECT_EQ(
        logs.texts(standin::LogLine::Kind::host),
        (std::vector<std::string>{"queue served; keep-alive after each message and every 1 ms idle",
                                  "handler for boom threw: no such thing",
                                  "handler for odd threw an unknown exception",
                                  "no handler for none; message dropped"}));
}

// A queue that goes frees the messages it still holds, and the bus is idle.
TEST(HostQueue, AQueueFreesWhatItStillHolds)
{
    struct Counted : ac::Message {
        explicit Counted(int* freed) : ac::Message("left", 0, nullptr), freed_(freed) {}
        ~Counted() override { ++*freed_; }
        int* freed_;
    };
    int freed = 0;
    {
        ac::MessageEnqueuer queue;
        queue.enqueue(new Counted(&freed), nullptr);
    }
    EXPECT_EQ(freed, 1);
    EXPECT_TRUE(standin::Bus::instance().wait_idle(std::chrono::seconds(1)));
}

// The idle barrier wakes its waiter as the last delivery ends. The bound given
// here outlasts the test's own time-out, so a waiter left asleep fails it.
TEST(HostBus, TheIdleBarrierWakesItsWaiterAsTheLastDeliveryEnds)
{
    standin::Bus& bus = standin::Bus::instance();
    std::promise<void> opened;
    bus.add_service("gate", [gate = opened.get_future().share()](ac::Message&) { gate.wait(); });
    ac::PostOffice::send_message(new ac::Message("gate", 0, nullptr));
    std::promise<void> waiting;
    std::thread waiter([&bus, &waiting] {
        waiting.set_value();
        EXPECT_TRUE(bus.wait_idle(std::chrono::hours(1)));
    });
    waiting.get_future().wait();
    opened.set_value();
    waiter.join();
}

// A file that is no plug-in is reported, and nothing runs.
TEST(HostPlugin, AFileThatIsNoPluginIsReported)
{
    standin::PluginHost host(CATRA_NOT_A_PLUGIN);
    std::string error;
    EXPECT_FALSE(host.init(&error));
    EXPECT_EQ(error, std::string(CATRA_NOT_A_PLUGIN) + ": invalid ELF header");
    EXPECT_FALSE(host.start());
}

}  // namespace
}  // namespace catra_test
