// Watching the stand-in host: every message sent on the bus and every line of
// the host's logs becomes an output line, printed in the thread that sent or
// logged it, at that moment.
#pragma once

#include <vector>

#include "ac/message.h"
#include "output.h"

namespace terminal {

// [[key, value], ...] in the fields' order; ints as numbers, texts as strings.
Json fields_json(const std::vector<ac::MessageField>& fields);

// Marks the messages that the terminal itself sends, for as long as the scope
// lasts on the calling thread: they are printed as {"sent": ...}, apart from
// the plug-in's {"bus": ...}.
class OwnSend {
public:
    OwnSend();
    ~OwnSend();
    OwnSend(const OwnSend&) = delete;
    OwnSend& operator=(const OwnSend&) = delete;
    static bool active();

private:
    bool was_active_;
};

// Subscribes to the bus and to the logs (whose echo to standard error it
// turns off) until destroyed.
class HostObservers {
public:
    explicit HostObservers(Output& output);
    ~HostObservers();
    HostObservers(const HostObservers&) = delete;
    HostObservers& operator=(const HostObservers&) = delete;

private:
    int bus_subscription_;
    int logs_subscription_;
};

}  // namespace terminal
