// The live view's history: the output lines as events ready to send to a
// page, numbered in printing order and bounded in lines and bytes. Each page's
// stream reads it by number: first the history, then each line as it comes.
// A stream that falls behind the history (its next line was dropped) ends,
// so that no page ever holds up the terminal's output.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace terminal {

class History {
public:
    using Event = std::shared_ptr<const std::string>;

    History(std::size_t most_lines, std::size_t most_bytes);

    // Adds an event, dropping the oldest past either bound (never the newest
    // alone). Quick: it runs under the output's lock.
    void add(std::string event);

    // The number of the oldest event kept: where a new stream starts.
    std::uint64_t first() const;

    // The events from number `next` on, waiting at most `wait` for one to
    // come; `next` moves past them. Empty when none came; nothing when the
    // stream fell behind the history or the history stopped.
    std::optional<std::vector<Event>> read(std::uint64_t& next, std::chrono::milliseconds wait);

    // Every read from now on returns nothing at once.
    void stop();

private:
    const std::size_t most_lines_;
    const std::size_t most_bytes_;
    mutable std::mutex mutex_;
    std::condition_variable added_;
    // Event number first_ is events_.front(); number next_ the next to come.
    std::deque<Event> events_;         // guarded by mutex_
    std::size_t bytes_ = 0;            // guarded by mutex_
    std::uint64_t first_ = 0;          // guarded by mutex_
    std::uint64_t next_ = 0;           // guarded by mutex_
    std::size_t readers_waiting_ = 0;  // guarded by mutex_
    bool stopped_ = false;             // guarded by mutex_
};

}  // namespace terminal
