// The post office: observers, receivers by type, the delivery thread and
// the idle barrier.
#include "standin/bus.h"

#include <pthread.h>

#include <exception>

#include "ac/plugin.h"
#include "host_internal.h"

namespace standin {

// Leaked on purpose, so that no static destructor runs before it.
Bus& Bus::instance()
{
    static Bus* bus = new Bus();
    return *bus;
}

Bus::Bus() : impl_(std::make_unique<Impl>()) {}

int Bus::subscribe(Observer observer)
{
    std::lock_guard<std::recursive_mutex> lock(impl_->observers_mutex);
    int id = impl_->next_observer++;
    impl_->observers.emplace(id, std::move(observer));
    return id;
}

void Bus::unsubscribe(int id)
{
    std::lock_guard<std::recursive_mutex> lock(impl_->observers_mutex);
    impl_->observers.erase(id);
}

void Bus::add_service(const std::string& type, Service service)
{
    impl_->add_receiver(type, nullptr, std::move(service));
}

bool Bus::wait_idle(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(impl_->idle_mutex);
    return impl_->idle_cv.wait_for(lock, timeout, [this] { return impl_->busy == 0; });
}

void Bus::stop_queues()
{
    std::lock_guard<std::mutex> lock(impl_->queues_mutex);
    for (ac::MessageEnqueuer::State* queue : impl_->queues) {
        {
            std::lock_guard<std::mutex> queue_lock(queue->mutex);
            queue->stopped = true;
        }
        queue->wake.notify_all();
    }
}

void Bus::shutdown()
{
    std::thread thread;
    {
        std::lock_guard<std::mutex> lock(impl_->delivery_mutex);
        if (impl_->shutting_down)
            return;
        impl_->shutting_down = true;
        thread = std::move(impl_->delivery_thread);
    }
    impl_->delivery_wake.notify_all();
    if (thread.joinable()) {
        if (thread.get_id() == std::this_thread::get_id()) {
            thread.detach();
        } else {
            thread.join();
        }
    }
    std::lock_guard<std::mutex> lock(impl_->delivery_mutex);
    impl_->shut_down = true;
}

// ---------------------------------------------------------------- Impl
bool Bus::Impl::send(ac::Message* msg, bool sync)
{
    if (!msg)
        return false;
    {
        std::lock_guard<std::recursive_mutex> lock(observers_mutex);
        const std::map<int, Observer> current = observers;  // observers may unsubscribe
        for (const auto& entry : current) {
            try {
                entry.second(*msg, sync);
            } catch (const std::exception& e) {
                log_host(std::string("observer threw: ") + e.what());
            }
        }
    }

    auto completion = std::make_shared<ac::Message::Completion>();
    completion->sync = sync;
    completion->sender = std::this_thread::get_id();
    msg->set_completion(completion);

    std::unique_lock<std::mutex> lock(delivery_mutex);
    if (shutting_down && std::this_thread::get_id() != delivery_id) {
        lock.unlock();
        delete msg;
        return false;
    }
    if (sync && std::this_thread::get_id() == delivery_id) {
        // A receiver asking from inside a delivery: waiting for the delivery
        // thread would wait for itself, so deliver here and now. A message
        // that lands in a plug-in queue is then handled later, unawaited.
        lock.unlock();
        begin_work();
        deliver(msg);
        end_work();
        return completion->received();
    }
    begin_work();
    pending.push_back(msg);
    start_delivery_locked();
    lock.unlock();
    delivery_wake.notify_one();
    if (!sync)
        return true;
    completion->wait();
    return completion->received();
}

void Bus::Impl::start_delivery_locked()
{
    if (delivery_thread.joinable() || shutting_down)
        return;
    delivery_thread = std::thread([this] { delivery_loop(); });
    delivery_id = delivery_thread.get_id();
}

void Bus::Impl::delivery_loop()
{
    pthread_setname_np(pthread_self(), "host_delivery");
    for (;;) {
        ac::Message* msg = nullptr;
        {
            std::unique_lock<std::mutex> lock(delivery_mutex);
            delivery_wake.wait(lock, [this] { return shutting_down || !pending.empty(); });
            if (pending.empty())
                return;
            msg = pending.front();
            pending.pop_front();
        }
        deliver(msg);
        end_work();
    }
}

// After the receiver returns the message is freed here, unless the receiver
// moved it into a plug-in queue: then the queue owns it and may already have
// freed it, so only the completion is looked at.
void Bus::Impl::deliver(ac::Message* msg)
{
    const std::shared_ptr<ac::Message::Completion> completion = msg->completion();
    const std::string type = msg->type();
    std::function<void(ac::Message&)> receiver;
    {
        std::lock_guard<std::mutex> lock(receivers_mutex);
        auto it = receivers.find(type);
        if (it != receivers.end())
            receiver = it->second.deliver;
    }
    if (receiver) {
        completion->mark_received();
        try {
            receiver(*msg);
        } catch (const std::exception& e) {
            log_host("receiver of " + type + " threw: " + e.what());
        } catch (...) {
            log_host("receiver of " + type + " threw an unknown exception");
        }
    }
    if (!completion->transferred())
        delete msg;
}

void Bus::Impl::add_receiver(const std::string& type, const void* owner,
                             std::function<void(ac::Message&)> deliver)
{
    std::lock_guard<std::mutex> lock(receivers_mutex);
    receivers[type] = Receiver{owner, std::move(deliver)};
}

void Bus::Impl::remove_receivers_of(const void* owner)
{
    std::lock_guard<std::mutex> lock(receivers_mutex);
    for (auto it = receivers.begin(); it != receivers.end();) {
        if (it->second.owner == owner) {
            it = receivers.erase(it);
        } else {
            ++it;
        }
    }
}

void Bus::Impl::add_queue(ac::MessageEnqueuer::State* queue)
{
    std::lock_guard<std::mutex> lock(queues_mutex);
    queues.insert(queue);
}

void Bus::Impl::remove_queue(ac::MessageEnqueuer::State* queue)
{
    std::lock_guard<std::mutex> lock(queues_mutex);
    queues.erase(queue);
}

void Bus::Impl::begin_work()
{
    std::lock_guard<std::mutex> lock(idle_mutex);
    ++busy;
}

void Bus::Impl::end_work()
{
    std::lock_guard<std::mutex> lock(idle_mutex);
    if (--busy == 0)
        idle_cv.notify_all();
}

}  // namespace standin

namespace ac {

void PostOffice::send_message(Message* msg)
{
    standin::Internals::bus().send(msg, false);
}

bool PostOffice::send_message_sync(Message* msg)
{
    return standin::Internals::bus().send(msg, true);
}

}  // namespace ac
