// A plug-in's message queue.
#include "ac/message_enqueuer.h"

#include <exception>

#include "host_internal.h"

namespace ac {

namespace {

standin::Internals::BusCore& bus()
{
    return standin::Internals::bus();
}

// Runs one queued message's handler; whatever it throws is logged and dropped.
void dispatch(const MessageEnqueuer::State::Item& item, void (*handler)(Message*))
{
    const std::string type = item.msg->type();
    if (!handler) {
        standin::log_host("no handler for " + type + "; message dropped");
        return;
    }
    try {
        handler(item.msg);
    } catch (const std::exception& e) {
        standin::log_host("handler for " + type + " threw: " + e.what());
    } catch (...) {
        standin::log_host("handler for " + type + " threw an unknown exception");
    }
}

}  // namespace

MessageEnqueuer::MessageEnqueuer() : state_(std::make_shared<State>())
{
    bus().add_queue(state_.get());
}

// Messages still waiting are freed (which releases their synchronous senders).
MessageEnqueuer::~MessageEnqueuer()
{
    bus().remove_queue(state_.get());
    std::deque<State::Item> left;
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        left.swap(state_->items);
    }
    for (const State::Item& item : left) {
        delete item.msg;
        bus().end_work();
    }
}

void MessageEnqueuer::listen(const MessageListener* table, int count)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    for (int i = 0; i < count; ++i)
        state_->handlers[table[i].type] = table[i].function;
}

void MessageEnqueuer::enqueue(Message* msg, void (*function)(Message*))
{
    if (!msg)
        return;
    const std::shared_ptr<Message::Completion> completion = msg->completion();
    bool sender_serves_this_queue = false;
    bus().begin_work();
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        sender_serves_this_queue =
            completion && completion->sync && completion->sender == state_->serving;
        state_->items.push_back(State::Item{msg, function});
        // Notified under the lock: once it is released the message may be
        // dispatched, its sender released and this queue destroyed.
        state_->wake.notify_all();
    }
    // A synchronous request sent from this queue's own thread cannot wait for
    // this queue: its handler runs only after the sender's handler returns.
    if (sender_serves_this_queue)
        completion->signal();
}

void MessageEnqueuer::process(int period, void (*keep_alive)())
{
    std::string served = "queue served";
    if (keep_alive) {
        served += "; keep-alive after each message";
        if (period > 0)
            served += " and every " + std::to_string(period) + " ms idle";
    }
    standin::log_host(served);
    State& state = *state_;
    struct ServingGuard {
        ServingGuard(const ServingGuard&) = delete;
        ServingGuard& operator=(const ServingGuard&) = delete;
        State& state;
        ~ServingGuard()
        {
            std::lock_guard<std::mutex> lock(state.mutex);
            state.serving = std::thread::id();
        }
    };
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        state.serving = std::this_thread::get_id();
    }
    ServingGuard guard{state};  // declared before lock, so it runs after lock is released
    std::unique_lock<std::mutex> lock(state.mutex);

    const auto has_work = [&state] { return state.stopped || !state.items.empty(); };
    while (!state.stopped) {
        if (state.items.empty()) {
            // A period of 0 or less means no idle keep-alive.
            if (period > 0) {
                if (!state.wake.wait_for(lock, std::chrono::milliseconds(period), has_work)) {
                    lock.unlock();
                    if (keep_alive)
                        keep_alive();
                    lock.lock();
                }
            } else {
                state.wake.wait(lock, has_work);
            }
            continue;
        }
        const State::Item item = state.items.front();
        state.items.pop_front();
        void (*handler)(Message*) = item.function;
        if (!handler) {
            auto it = state.handlers.find(item.msg->type());
            if (it != state.handlers.end())
                handler = it->second;
        }
        lock.unlock();
        dispatch(item, handler);
        delete item.msg;  // releases a synchronous sender waiting on it
        bus().end_work();
        if (keep_alive)
            keep_alive();
        lock.lock();
    }
}

}  // namespace ac
