// Where output lines go: printed on a stream, from whichever thread saw what
// happened, as JSON or readable lines, and handed to whoever follows the
// output (the script's window, the live view).
#pragma once

#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>

#include "lines/line.h"

namespace lines {

enum class Style { json, readable };

class Output {
public:
    Output(std::FILE* stream, Style style);

    // Prints one line. Thread-safe: lines are printed whole, one at a time,
    // in the order the calls take the lock.
    void emit(const Json& line);

    // Time since the last line was printed.
    std::chrono::steady_clock::duration quiet_time() const;

    // A follower of the output: each line, and the same line as one JSON text
    // (compact()), made once for every follower.
    using Subscriber = std::function<void(const Json& line, const std::string& json)>;

    // Calls `subscriber` with each line from now on, in printing order, under
    // the output's lock. REQUIRES: the subscriber is quick, never blocks and
    // never emits. Returns the id that unsubscribe takes.
    int subscribe(Subscriber subscriber);
    void unsubscribe(int id);

private:
    void print(const Json& line, const std::string& json);  // REQUIRES: mutex_ held

    std::FILE* stream_;
    const Style style_;
    mutable std::mutex mutex_;
    std::chrono::steady_clock::time_point last_;  // guarded by mutex_

    // Guarded by mutex_.
    std::map<int, Subscriber> subscribers_;
    int next_subscriber_ = 0;
};

}  // namespace lines
