// What the terminal prints: one line per thing that happens, from whichever
// thread saw it, as a JSON object or as a short readable line, and handed to
// whoever follows the output (the script's window, the live view).
#pragma once

#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
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
    std::chrono::steady_clock::time_point last_;  // guarded by mutex_

    // Guarded by mutex_.
    std::map<int, std::function<void(const Json&)>> subscribers_;
    int next_subscriber_ = 0;
};

// The kinds of output line, in the order they are told apart: a line is of
// the first kind whose key it holds ({"bus": ...} is a "bus" line), else of
// the last, "other". Every reader takes them from here (the live view's page
// through /info).
const std::vector<std::string>& line_kinds();
std::string kind_of(const Json& line);

// An output line told for a person: its label (the source it came from, or a
// log line's level), what it says on one line, and the lines that follow
// (a dump's rows).
struct Told {
    std::string label;
    std::string text;
    std::vector<std::string> more;
};
Told tell(const Json& line);

// The readable form of an output line: its label in a column, then its text;
// a note stands out on a line of its own.
std::string readable(const Json& line);

// The display name of a turnstile event letter ("FREE RIGHT" for f).
std::string event_name(char letter);

}  // namespace terminal
