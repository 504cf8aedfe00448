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

// The lines printed since the last mark, oldest first, and how many older
// ones were dropped to keep the window within its bounds.
struct Printed {
    std::size_t dropped = 0;
    std::vector<Json> lines;
};

class Window {
public:
    // The window keeps at most the last 10000 lines since the mark, or as
    // many as fit in 8 MiB: a long stretch without an action (notes, dumps, a
    // real controller's events) holds no more, and a line longer than that
    // (a dump of many records) is not kept at all.
    static constexpr std::size_t kMostLines = 10000;
    static constexpr std::size_t kMostBytes = std::size_t{8} * 1024 * 1024;

    // Keeps the lines the output prints from now on, until the first mark.
    explicit Window(lines::Output& output);
    ~Window();
    Window(const Window&) = delete;
    Window& operator=(const Window&) = delete;

    // The script's next action starts here: waits look only at lines
    // printed from the last mark on.
    void mark();
    // Waits until a line printed since the last mark contains the pattern's
    // keys and values (see contains() in matcher.h); false on time-out. A
    // line dropped before the wait looked at it is not seen. The matching line
    // goes to *found when given. Every wait and expectation of a script
    // matches this way.
    bool wait_for(const Json& pattern, std::chrono::milliseconds timeout, Json* found = nullptr);
    // As wait_for, for a line that `wanted` accepts.
    bool wait_until(const std::function<bool(const Json&)>& wanted,
                    std::chrono::milliseconds timeout, Json* found = nullptr);
    // The lines printed since the last mark.
    Printed since_mark() const;

private:
    lines::Output& output_;
    int subscription_;
    mutable std::mutex mutex_;
    std::condition_variable printed_;
    // Keeps a line of that size in bytes. REQUIRES: mutex_ held
    void keep(const Json& line, std::size_t size);

    // Line N since the mark is kept_[N - dropped_]. Guarded by mutex_.
    std::deque<Json> kept_;
    std::deque<std::size_t> sizes_;  // of each kept line, in bytes
    std::size_t bytes_ = 0;
    std::size_t dropped_ = 0;
};

}  // namespace terminal
