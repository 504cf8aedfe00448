// The host's registration object for one plug-in, and the post office.
#pragma once

#include <string>
#include <vector>

#include "ac/message.h"

namespace ac {

class Plugin {
public:
    Plugin();
    ~Plugin();
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;

    void set_name(std::string name);
    void set_run(int (*run)());
    // Subscribes the plug-in to the table's message types; the table is copied.
    void add_messages_interested(const MessageListener* table, int count);

    const std::string& name() const;
    int (*run_function() const)();
    const std::vector<MessageListener>& listeners() const;

private:
    std::string name_;
    int (*run_)() = nullptr;
    std::vector<MessageListener> listeners_;
};

class PostOffice {
public:
    // Delivers asynchronously, in the order sent; takes ownership.
    static void send_message(Message* msg);
    // Returns after the receiver has handled the message; takes ownership.
    static bool send_message_sync(Message* msg);
};

}  // namespace ac
