// What the terminal prints: one line per thing that happens, from whichever
// thread saw it, as a JSON object or as a short readable line.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <vector>

#include <nlohmann/json.hpp>

namespace terminal {

using Json = nlohmann::ordered_json;

enum class Style { json, readable };

class Output {
public:
    Output(std::FILE* stream, Style style);

    // Prints one line. Thread-safe: lines are printed whole, one at a time,
    // in the order the calls take the lock.
    void emit(const Json& line);

    // The script's next command starts here: wait_for looks only at lines
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

    // Time since the last line was printed.
    std::chrono::steady_clock::duration quiet_time() const;

    // Calls `subscriber` with each line from now on, in printing order, under
    // the output's lock: it must be quick, must not block and must not emit.
    // Returns the id that unsubscribe takes.
    int subscribe(std::function<void(const Json&)> subscriber);
    void unsubscribe(int id);

private:
    void print(const Json& line);  // REQUIRES: mutex_ held

    std::FILE* stream_;
    const Style style_;
    mutable std::mutex mutex_;
    std::condition_variable printed_;
    std::deque<Json> since_mark_;                 // guarded by mutex_
    std::chrono::steady_clock::time_point last_;  // guarded by mutex_

    // Guarded by mutex_.
    std::map<int, std::function<void(const Json&)>> subscribers_;
    int next_subscriber_ = 0;
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

// The one-line readable form of an output line.
std::string readable(const Json& line);

// The display name of a turnstile event letter ("FREE RIGHT" for f).
std::string event_name(char letter);

}  // namespace terminal
