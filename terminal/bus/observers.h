// The terminal on the host's bus: every message sent on the bus and every line
// of the host's logs becomes an output line, printed in the thread that sent
// or logged it, at that moment; and the terminal's own requests to the
// plug-in.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

#include "ac/message.h"
#include "lines/output.h"

namespace terminal {

using lines::Json;

// [[key, value], ...] in the fields' order; ints as numbers, texts as strings.
Json fields_json(const std::vector<ac::MessageField>& fields);

// Marks the messages that the terminal itself sends, for as long as the scope
// lasts on the calling thread: they are printed as {"sent": ...}, apart from
// the plug-in's {"bus": ...}.
class OwnSend {
public:
    // `printed` false: the messages are not printed at all (the live view's
    // reads, which change nothing).
    explicit OwnSend(bool printed = true);
    ~OwnSend();
    OwnSend(const OwnSend&) = delete;
    OwnSend& operator=(const OwnSend&) = delete;
    static bool active();
    static bool unprinted();

private:
    int was_;
};

// The reply to a request sent to the plug-in.
struct Reply {
    bool replied = false;
    Json fields;  // as fields_json gives them
};

// Sends a request as the terminal's own, synchronously on a thread of its
// own, and waits for it: its reply, or nothing when it did not return within
// `timeout` (a receiver that never answers holds that thread, not the
// caller). `printed` as for OwnSend.
std::optional<Reply> ask(std::unique_ptr<ac::Message> message, std::chrono::milliseconds timeout,
                         bool printed = true);

// Subscribes to the bus and to the logs (whose echo to standard error it
// turns off) until destroyed.
class HostObservers {
public:
    explicit HostObservers(lines::Output& output);
    ~HostObservers();
    HostObservers(const HostObservers&) = delete;
    HostObservers& operator=(const HostObservers&) = delete;

private:
    int bus_subscription_;
    int logs_subscription_;
};

}  // namespace terminal
