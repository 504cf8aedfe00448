// The debug and error logs, the host's own log lines and the watchdog.
#include "ac/log.h"

#include <cstdio>

#include "host_internal.h"
#include "standin/logs.h"

namespace standin {

namespace {

// Held while a line is added and its observers run, so that once
// unsubscribe returns no call of that observer is in flight; recursive so
// that an observer may log. Taken before Logs::mutex_. Never destroyed, like
// the logs themselves.
std::recursive_mutex& observers_call_mutex()
{
    static std::recursive_mutex* mutex = new std::recursive_mutex();
    return *mutex;
}

void echo(const LogLine& line)
{
    switch (line.kind) {
        case LogLine::Kind::debug:
            std::fprintf(stderr, "[debug] %s: %s\n", line.function.c_str(), line.text.c_str());
            break;
        case LogLine::Kind::error: std::fprintf(stderr, "[error] %s\n", line.text.c_str()); break;
        case LogLine::Kind::host: std::fprintf(stderr, "[host] %s\n", line.text.c_str()); break;
    }
}

}  // namespace

Logs& Logs::instance()
{
    static Logs* logs = new Logs();
    return *logs;
}

void Logs::add(const LogLine& line)
{
    std::lock_guard<std::recursive_mutex> calls(observers_call_mutex());
    std::map<int, Observer> observers;
    bool echo_line = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        observers = observers_;
        echo_line = echo_;
    }
    if (echo_line)
        echo(line);
    for (const auto& entry : observers)
        entry.second(line);
}

int Logs::subscribe(Observer observer)
{
    std::lock_guard<std::mutex> lock(mutex_);
    const int id = next_id_++;
    observers_.emplace(id, std::move(observer));
    return id;
}

void Logs::unsubscribe(int id)
{
    std::lock_guard<std::recursive_mutex> calls(observers_call_mutex());
    std::lock_guard<std::mutex> lock(mutex_);
    observers_.erase(id);
}

void Logs::set_echo(bool echo)
{
    std::lock_guard<std::mutex> lock(mutex_);
    echo_ = echo;
}

void log_host(const std::string& text)
{
    LogLine line;
    line.kind = LogLine::Kind::host;
    line.text = text;
    Logs::instance().add(line);
}

}  // namespace standin

namespace ac {

namespace zorlog {
void debug(const std::string& text, const char* file, const char* function, int line)
{
    standin::LogLine entry;
    entry.kind = standin::LogLine::Kind::debug;
    entry.text = text;
    entry.file = file ? file : "";
    entry.function = function ? function : "";
    entry.line = line;
    standin::Logs::instance().add(entry);
}
}  // namespace zorlog

namespace error {
void log(const std::string& text)
{
    standin::LogLine entry;
    entry.kind = standin::LogLine::Kind::error;
    entry.text = text;
    standin::Logs::instance().add(entry);
}
}  // namespace error

// The stand-in terminal has no hardware watchdog to feed: the feeds are
// taken and dropped.
namespace watchdog {
void keep_alive(const std::string& /*module*/) {}
}  // namespace watchdog

}  // namespace ac
