// A plug-in's message queue, dispatching queued messages by type.
#pragma once

#include <memory>

#include "ac/message.h"

namespace ac {

class MessageEnqueuer {
public:
    MessageEnqueuer();
    ~MessageEnqueuer();
    MessageEnqueuer(const MessageEnqueuer&) = delete;
    MessageEnqueuer& operator=(const MessageEnqueuer&) = delete;

    void listen(const MessageListener* table, int count);
    // Takes ownership of msg. A null function dispatches by type.
    void enqueue(Message* msg, void (*function)(Message*));
    // Serves the queue on the calling thread until the host stops it; calls
    // keep_alive between messages and at least once per period (ms) when idle.
    void process(int period, void (*keep_alive)());

    struct State;

private:
    std::shared_ptr<State> state_;
};

}  // namespace ac
