// The script's window on the output: the lines printed since the script's
// last action, which its waits and expectations look at, and the patterns
// they look for.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

#include "output.h"

namespace terminal {

class Window {
public:
    // Keeps every line the output prints from now on, until the first mark.
    explicit Window(Output& output);
    ~Window();
    Window(const Window&) = delete;
    Window& operator=(const Window&) = delete;

    // The script's next action starts here: waits look only at lines
    // printed from the last mark on.
    void mark();
    // Waits until a line printed since the last mark contains the pattern's
    // keys and values (see contains()); false on time-out. The matching line
    // goes to *found when given. Every wait and expectation of a script
    // matches this way.
    bool wait_for(const Json& pattern, std::chrono::milliseconds timeout, Json* found = nullptr);
    // As wait_for, for a line that `wanted` accepts.
    bool wait_until(const std::function<bool(const Json&)>& wanted,
                    std::chrono::milliseconds timeout, Json* found = nullptr);
    // The lines printed since the last mark, oldest first.
    std::vector<Json> since_mark() const;

private:
    Output& output_;
    int subscription_;
    mutable std::mutex mutex_;
    std::condition_variable printed_;
    std::deque<Json> since_mark_;  // guarded by mutex_
};

// True when `line` holds what `pattern` holds: an object every key of the
// pattern object with a value that contains the pattern's value, an array an
// element containing each element of the pattern array, any other value an
// equal one. So {"bus": "catra_event", "fields": [["event", 5]]} matches a
// "catra_event" line whose fields include ["event", 5].
bool contains(const Json& line, const Json& pattern);

// How much of the pattern a line holds: the number of the pattern's values
// (leaves) found in it where contains() would look. A line that contains the
// pattern scores the pattern's number of leaves.
int nearness(const Json& line, const Json& pattern);

}  // namespace terminal
