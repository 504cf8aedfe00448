// The stand-in host's logs: the plug-in's debug and error lines and the
// host's own.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace standin {

struct LogLine {
    enum class Kind { debug, error, host };
    Kind kind = Kind::debug;
    std::string text;
    std::string file;
    std::string function;
    int line = 0;
};

// Every line goes to the observers and (unless echo is off) to standard
// error, one line at a time, so the echo and every observer see the lines in
// the order they were added. The host's own lines are of kind host: the
// buzzer sounding, a queue served, a handler that threw. Every member may be
// called from any thread.
class Logs {
public:
    // Runs in the thread that adds the line, under a lock (recursive) that
    // add holds: it may add lines itself, but must not wait for another
    // thread that logs.
    using Observer = std::function<void(const LogLine&)>;

    // The process's logs, never destroyed.
    static Logs& instance();
    void add(const LogLine& line);
    // Returns an id for unsubscribe.
    int subscribe(Observer observer);
    // Once it returns, no call of that observer is in flight (unless it is
    // called from inside that observer).
    void unsubscribe(int id);
    // Whether each line is also written to standard error (default true).
    void set_echo(bool echo);

private:
    Logs() = default;
    mutable std::mutex mutex_;
    std::map<int, Observer> observers_;
    int next_id_ = 1;
    bool echo_ = true;
};

}  // namespace standin
