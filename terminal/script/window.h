// The script's window on the output: the lines printed since the script's
// last action, which its waits and expectations look at.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

#include "lines/output.h"

namespace terminal {

using lines::Json;

class Window {
public:
    // Keeps every line the output prints from now on, until the first mark.
    explicit Window(lines::Output& output);
    ~Window();
    Window(const Window&) = delete;
    Window& operator=(const Window&) = delete;

    // The script's next action starts here: waits look only at lines
    // printed from the last mark on.
    void mark();
    // Waits until a line printed since the last mark contains the pattern's
    // keys and values (see contains() in matcher.h); false on time-out. The matching line
    // goes to *found when given. Every wait and expectation of a script
    // matches this way.
    bool wait_for(const Json& pattern, std::chrono::milliseconds timeout, Json* found = nullptr);
    // As wait_for, for a line that `wanted` accepts.
    bool wait_until(const std::function<bool(const Json&)>& wanted,
                    std::chrono::milliseconds timeout, Json* found = nullptr);
    // The lines printed since the last mark, oldest first.
    std::vector<Json> since_mark() const;

private:
    lines::Output& output_;
    int subscription_;
    mutable std::mutex mutex_;
    std::condition_variable printed_;
    std::deque<Json> since_mark_;  // guarded by mutex_
};

}  // namespace terminal
