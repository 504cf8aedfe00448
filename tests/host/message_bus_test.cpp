// Messages, the post office and the plug-in queue.
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "standin/standin.h"

namespace {

using Entries = std::vector<std::string>;

// What receivers and queue handlers saw, in order. They are plain functions
// (as a plug-in registers them), hence the shared journal.
class Journal {
public:
    void add(const std::string& entry)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back(entry);
    }
    Entries entries()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return entries_;
    }
    void clear()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.clear();
    }

private:
    std::mutex mutex_;
    Entries entries_;
};

Journal journal;
ac::MessageEnqueuer* current_queue = nullptr;

// "type k=v ..." for a message's fields, in their order.
std::string describe(const ac::Message& msg)
{
    std::string text = msg.type();
    for (const ac::MessageField& field : msg.fields()) {
        text +=
            " " + field.key + "=" + (field.is_int ? std::to_string(field.int_value) : field.text);
    }
    return text;
}

void record(ac::Message* msg)
{
    journal.add("deliver " + describe(*msg));
}

void transfer_to_queue(ac::Message* msg)
{
    msg->set_handled();
    msg->transfer(current_queue);
}

void copy_to_queue(ac::Message* msg)
{
    current_queue->enqueue(new ac::Message(*msg), nullptr);
}

void answer_state(ac::Message* msg)
{
    journal.add("handle " + describe(*msg) + (msg->handled() ? " handled" : " unhandled"));
    if (!msg->reply())
        return;
    msg->reply()->add_int("state", 3);
    msg->reply()->set_replied();
}

void throw_bad_thing(ac::Message*)
{
    throw ac::ac_exception("bad thing", true);
}

ac::Message* make(const std::string& type, int n)
{
    auto* msg = new ac::Message(type, 0, nullptr);
    msg->add_int("n", n);
    return msg;
}

// Registers plain functions as a plug-in's receivers for the length of a test.
struct Receivers {
    explicit Receivers(std::vector<ac::MessageListener> rows)
    {
        plugin.add_messages_interested(rows.data(), static_cast<int>(rows.size()));
    }
    ac::Plugin plugin;
};

// A plug-in queue with handlers; serve() runs it on a thread of its own.
class TestQueue {
public:
    explicit TestQueue(std::vector<ac::MessageListener> handlers, int period = 0,
                       void (*keep_alive)() = nullptr)
        : period_(period), keep_alive_(keep_alive)
    {
        queue.listen(handlers.data(), static_cast<int>(handlers.size()));
        current_queue = &queue;
    }
    ~TestQueue()
    {
        standin::Bus::instance().stop_queues();
        if (thread_.joinable())
            thread_.join();
        current_queue = nullptr;
    }
    void serve()
    {
        thread_ = std::thread([this] { queue.process(period_, keep_alive_); });
    }
    ac::MessageEnqueuer queue;

private:
    int period_;
    void (*keep_alive_)();
    std::thread thread_;
};

class BusTest : public testing::Test {
protected:
    void SetUp() override
    {
        journal.clear();
        standin::Logs::instance().clear();
        standin::Config::instance().clear();
    }
    void TearDown() override { EXPECT_TRUE(standin::Bus::instance().wait_idle()); }
};

TEST(MessageTest, FieldsKeepOrderAndAReadOfTheOtherTypeCountsAsAbsent)
{
    ac::Message msg("gpio_notified", 0, nullptr);
    msg.add_int("gpio", 17);
    msg.add_string("uuid", "u-1");
    msg.add_int("value", -3);
    EXPECT_EQ(describe(msg), "gpio_notified gpio=17 uuid=u-1 value=-3");

    struct Read {
        const char* key;
        bool int_found;
        int int_value;
        bool text_found;
        std::string text;
    };
    const Read reads[] = {
        {"gpio", true, 17, false, "untouched"},
        {"uuid", false, 99, true, "u-1"},
        {"value", true, -3, false, "untouched"},
        {"missing", false, 99, false, "untouched"},
    };
    for (const Read& read : reads) {
        SCOPED_TRACE(read.key);
        int value = 99;
        std::string text = "untouched";
        EXPECT_EQ(msg.get_int(read.key, &value), read.int_found);
        EXPECT_EQ(value, read.int_value);
        EXPECT_EQ(msg.get_string(read.key, &text), read.text_found);
        EXPECT_EQ(text, read.text);
    }
}

TEST(MessageTest, CopyCarriesTypeAndFieldsButNoReplyNorMarks)
{
    ac::MessageReply reply;
    ac::Message original("config_param_set", 0, nullptr);
    original.add_string("module", "catra");
    original.add_int("value", 1);
    original.set_reply(&reply);
    original.set_handled();

    const ac::Message copy(original);
    EXPECT_EQ(describe(copy), "config_param_set module=catra value=1");
    EXPECT_EQ(copy.reply(), nullptr);
    EXPECT_FALSE(copy.handled());
    EXPECT_FALSE(copy.transferred());
    EXPECT_FALSE(reply.replied());
}

TEST_F(BusTest, AsyncMessagesAreDeliveredInOrderOnOneHostThread)
{
    std::mutex mutex;
    std::vector<std::thread::id> threads;
    standin::Bus::instance().add_service("n", [&](ac::Message& msg) {
        record(&msg);
        std::lock_guard<std::mutex> lock(mutex);
        threads.push_back(std::this_thread::get_id());
    });
    Entries expected;
    for (int i = 0; i < 50; ++i) {
        ac::PostOffice::send_message(make("n", i));
        expected.push_back("deliver n n=" + std::to_string(i));
    }
    ASSERT_TRUE(standin::Bus::instance().wait_idle());
    standin::Bus::instance().remove_service("n");
    EXPECT_EQ(journal.entries(), expected);
    ASSERT_EQ(threads.size(), 50u);
    for (const std::thread::id& id : threads)
        EXPECT_EQ(id, threads.front());
    EXPECT_NE(threads.front(), std::this_thread::get_id());
}

TEST_F(BusTest, ObserversSeeEachMessageInTheSendersThreadBeforeDelivery)
{
    Receivers receivers({{"n", record, false}});
    const std::thread::id test_thread = std::this_thread::get_id();
    Entries seen;
    const int id = standin::Bus::instance().subscribe([&](const ac::Message& msg, bool sync) {
        const Entries delivered = journal.entries();
        const bool before = std::find(delivered.begin(), delivered.end(),
                                      "deliver " + describe(msg)) == delivered.end();
        const bool here = std::this_thread::get_id() == test_thread;
        seen.push_back(describe(msg) + (sync ? " sync" : " async") +
                       (before && here ? "" : " (late or elsewhere)"));
    });
    ac::PostOffice::send_message(make("n", 1));
    ac::PostOffice::send_message_sync(make("n", 2));
    ac::PostOffice::send_message(make("unknown", 3));
    standin::Bus::instance().unsubscribe(id);
    ac::PostOffice::send_message(make("n", 4));
    ASSERT_TRUE(standin::Bus::instance().wait_idle());
    EXPECT_EQ(seen, (Entries{"n n=1 async", "n n=2 sync", "unknown n=3 async"}));
    EXPECT_EQ(journal.entries(), (Entries{"deliver n n=1", "deliver n n=2", "deliver n n=4"}));
}

TEST_F(BusTest, SyncReturnsAfterTheQueueHandledATransferredMessageWithItsReply)
{
    TestQueue queue({{"catra_state", answer_state, false}});
    queue.serve();
    Receivers receivers({{"n", record, false}, {"catra_state", transfer_to_queue, false}});
    ac::PostOffice::send_message(make("n", 1));
    ac::MessageReply reply;
    ac::Message* request = make("catra_state", 2);
    request->set_reply(&reply);

    EXPECT_TRUE(ac::PostOffice::send_message_sync(request));
    EXPECT_EQ(journal.entries(), (Entries{"deliver n n=1", "handle catra_state n=2 handled"}));
    ASSERT_TRUE(reply.replied());
    int state = 0;
    EXPECT_TRUE(reply.get_int("state", &state));
    EXPECT_EQ(state, 3);
}

TEST_F(BusTest, SyncRequestWithoutReceiverReturnsUnreplied)
{
    ac::MessageReply reply;
    ac::Message* request = make("nobody_listens", 1);
    request->set_reply(&reply);
    EXPECT_FALSE(ac::PostOffice::send_message_sync(request));
    EXPECT_FALSE(reply.replied());
    EXPECT_TRUE(reply.fields().empty());
}

void send_inner_sync(ac::Message*)
{
    ac::PostOffice::send_message_sync(make("inner", 1));
    journal.add("outer done");
}

TEST_F(BusTest, SyncSentFromTheDeliveryThreadIsDeliveredInline)
{
    Receivers receivers({{"outer", send_inner_sync, false}, {"inner", record, false}});
    EXPECT_TRUE(ac::PostOffice::send_message_sync(make("outer", 0)));
    EXPECT_EQ(journal.entries(), (Entries{"deliver inner n=1", "outer done"}));
}

void send_own_message_sync(ac::Message*)
{
    ac::PostOffice::send_message_sync(make("catra_state", 2));
    journal.add("sender done");
}

TEST_F(BusTest, SyncFromAQueueHandlerToItsOwnQueueDoesNotWaitForItself)
{
    TestQueue queue(
        {{"first", send_own_message_sync, false}, {"catra_state", answer_state, false}});
    queue.serve();
    Receivers receivers(
        {{"first", transfer_to_queue, false}, {"catra_state", transfer_to_queue, false}});
    ac::PostOffice::send_message(make("first", 1));
    ASSERT_TRUE(standin::Bus::instance().wait_idle());
    EXPECT_EQ(journal.entries(), (Entries{"sender done", "handle catra_state n=2 handled"}));
}

TEST_F(BusTest, CopiesGoToTheQueueUnhandledWhileTheOriginalStaysWithThePostOffice)
{
    TestQueue queue({{"gpio_notified", answer_state, false}});
    queue.serve();
    Receivers receivers({{"gpio_notified", copy_to_queue, true}});
    ac::PostOffice::send_message(make("gpio_notified", 5));
    ASSERT_TRUE(standin::Bus::instance().wait_idle());
    EXPECT_EQ(journal.entries(), (Entries{"handle gpio_notified n=5 unhandled"}));
}

TEST_F(BusTest, QueueLogsAThrowingHandlerAndAnUnknownTypeAndGoesOn)
{
    TestQueue queue({{"boom", throw_bad_thing, false}, {"catra_state", answer_state, false}});
    // Queued before the queue is served: they wait, and wait_idle sees them.
    queue.queue.enqueue(make("boom", 1), nullptr);
    queue.queue.enqueue(make("unknown", 2), nullptr);
    queue.queue.enqueue(make("catra_state", 3), nullptr);
    EXPECT_FALSE(standin::Bus::instance().wait_idle(std::chrono::milliseconds(20)));
    EXPECT_TRUE(journal.entries().empty());

    queue.serve();
    ASSERT_TRUE(standin::Bus::instance().wait_idle());
    EXPECT_EQ(journal.entries(), (Entries{"handle catra_state n=3 unhandled"}));
    Entries host_lines;
    for (const standin::LogLine& line : standin::Logs::instance().lines()) {
        if (line.kind == standin::LogLine::Kind::host)
            host_lines.push_back(line.text);
    }
    EXPECT_EQ(host_lines, (Entries{"handler for boom threw: bad thing",
                                   "no handler for unknown; message dropped"}));
}

struct KeepAlives {
    std::mutex mutex;
    std::condition_variable fed;
    int count = 0;
} keep_alives;

void count_keep_alive()
{
    std::lock_guard<std::mutex> lock(keep_alives.mutex);
    ++keep_alives.count;
    keep_alives.fed.notify_all();
}

TEST_F(BusTest, QueueFeedsKeepAliveAfterEachMessageAndWhenIdle)
{
    {
        std::lock_guard<std::mutex> lock(keep_alives.mutex);
        keep_alives.count = 0;
    }
    {
        TestQueue queue({{"catra_state", answer_state, false}}, 0, count_keep_alive);
        queue.queue.enqueue(make("catra_state", 1), nullptr);
        queue.queue.enqueue(make("catra_state", 2), nullptr);
        queue.serve();
        ASSERT_TRUE(standin::Bus::instance().wait_idle());
    }
    {
        std::lock_guard<std::mutex> lock(keep_alives.mutex);
        EXPECT_EQ(keep_alives.count, 2);  // period 0: no idle feeding
    }

    TestQueue idle({}, 1, count_keep_alive);
    idle.serve();
    std::unique_lock<std::mutex> lock(keep_alives.mutex);
    EXPECT_TRUE(keep_alives.fed.wait_for(lock, std::chrono::seconds(10),
                                         [] { return keep_alives.count >= 5; }));
}

TEST_F(BusTest, StoppedQueueStopsProcessingEvenBeforeItIsServed)
{
    ac::MessageEnqueuer queue;
    standin::Bus::instance().stop_queues();
    queue.process(1000, nullptr);  // returns at once
    queue.enqueue(make("left", 1), nullptr);
    EXPECT_FALSE(standin::Bus::instance().wait_idle(std::chrono::milliseconds(20)));
    // The destructor frees what is left and the bus becomes idle.
}

}  // namespace
