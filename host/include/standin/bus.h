// The stand-in host's message bus: the post office behind ac::PostOffice.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "ac/message.h"

namespace standin {

// Every message handed to the post office is shown to the observers in the
// sender's thread at the moment it is sent (so each sender's order is kept),
// then delivered on the host's delivery thread to the receiver of its type:
// a plug-in that registered the type, or a host service. A type has one
// receiver: a later registration of it, by either, replaces the earlier.
// Every member may be called from any thread unless its comment says not.
class Bus {
public:
    // Runs in the sender's thread, before the message is queued, with the
    // observer registry's lock held (recursive); sync tells a synchronous
    // send. It may send, subscribe or unsubscribe. It must not wait for
    // another thread that sends: that thread waits for the lock it holds.
    // A std::exception it throws is logged as a host line and the message
    // goes on.
    using Observer = std::function<void(const ac::Message& msg, bool sync)>;
    // Runs on the delivery thread. It may add fields to msg.reply() and mark
    // it replied. REQUIRES: it never sends synchronously. What it throws is
    // logged as a host line.
    using Service = std::function<void(ac::Message& msg)>;

    // The process's bus, built on first use and never destroyed: plug-in
    // threads may send until the process ends.
    static Bus& instance();

    // Returns an id for unsubscribe.
    int subscribe(Observer observer);
    // Once it returns, no call of that observer is in flight (unless it is
    // called from inside that observer).
    void unsubscribe(int id);

    // Makes service the receiver of type.
    void add_service(const std::string& type, Service service);

    // Returns true once no message waits for or is in delivery and none waits
    // in or is handled by a plug-in queue; false on time-out.
    // REQUIRES: called from a thread that does none of that work, such as a
    // test's or the terminal's main thread. Not on the delivery thread (a
    // service or a plug-in's receiver) nor in a handler that a queue runs:
    // the barrier would wait for its own caller. Not in an observer either,
    // which holds the lock that every sender waits for.
    bool wait_idle(std::chrono::milliseconds timeout = std::chrono::seconds(10));

    // Makes every ac::MessageEnqueuer::process return once its running
    // handler has returned. A stopped queue stays stopped: process() on it
    // later returns at once, so a run thread that reaches it after the stop
    // still ends.
    void stop_queues();
    // Delivers what was already sent, then stops the delivery thread (joined,
    // or detached when called on it). From then on the post office frees
    // what it is given without delivering it. Later calls return at once.
    void shutdown();

private:
    friend struct Internals;  // the host's own sources
    struct Impl;

    Bus();
    std::unique_ptr<Impl> impl_;
};

}  // namespace standin
