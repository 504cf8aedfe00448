// Records every message sent on the stand-in host's bus, in the order sent,
// and fails the running test for any message not built the one way that the
// plug-in and the tests build theirs: new ac::Message(type, 0, nullptr).
#pragma once

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "ac/message.h"

namespace catra_test {

// One line for failure messages: type{key=1,key="text"}, fields in order,
// texts quoted.
std::string render(const std::string& type, const std::vector<ac::MessageField>& fields);

class BusRecorder {
public:
    // Subscribes to standin::Bus; every message sent from then on is recorded
    // in the sender's thread at the moment it is sent. clear() starts afresh.
    BusRecorder();
    ~BusRecorder();
    BusRecorder(const BusRecorder&) = delete;
    BusRecorder& operator=(const BusRecorder&) = delete;

    // Messages rendered as render() does, with a trailing " (sync)" for
    // synchronous sends, and, in between, each write call on the controller
    // device as "write <bytes>" (NULs shown as \0), in the order they happened.
    std::vector<std::string> trace() const;
    void clear();

    struct Shared;

private:
    // Shared with the bus observer, which may still run on another thread
    // while this object is destroyed.
    std::shared_ptr<Shared> shared_;
    int subscription_ = 0;
};

}  // namespace catra_test
