// The live view: a small HTTP server that shows the terminal in a browser.
//
//   GET  /         the page (HTML, CSS and JavaScript built into the program)
//   GET  /info     what the page needs to know: buttonholes, simulated or not,
//                  operation and exception mode, the names of the controller's
//                  event letters
//   GET  /state    what the page shows, read without acting and without a
//                  line of output: state, default state, enabled, the
//                  counters and the newest access events and access-log
//                  records (JSON)
//   GET  /events   text/event-stream, one event per output line: first the
//                  recent history, then the lines as they are printed
//   POST /command  one line of the script language, run as if read from the
//                  script: 200 when it ran; 400 for a bad line, 409 for an
//                  action refused here, 422 for an unmet expectation, each
//                  with the script's text of why
//
// The port controls the terminal, so requests are guarded: a Host or Origin
// header that names another site gets 403, a body over 64 KiB 413. Each
// watching page has a bounded queue of its own; a page that falls behind is
// dropped (its browser reconnects and gets the history again), so no client
// ever holds up the terminal's output.
#pragma once

#include <signal.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "output.h"
#include "script.h"
#include "standin/standin.h"

namespace httplib {
class ContentReader;
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace terminal {

// "" when `text` is a valid [ADDR:]PORT for --http, else what is wrong.
std::string http_address_error(const std::string& text);

// SIGINT and SIGTERM, blocked in every thread from construction on (so build
// it before any thread starts) and taken one at a time by wait().
class StopSignals {
public:
    StopSignals();
    ~StopSignals() = default;
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;
    // Returns the signal that arrived.
    int wait();

private:
    sigset_t set_{};
};

class LiveView {
public:
    // The history: the last 1000 lines, or as many as fit in 8 MiB but never
    // fewer than 500.
    static constexpr std::size_t kHistoryLines = 1000;
    static constexpr std::size_t kHistoryLinesKept = 500;
    static constexpr std::size_t kHistoryBytes = std::size_t{8} * 1024 * 1024;
    // A page's stream falls behind by at most this much before it is dropped.
    static constexpr std::size_t kClientQueueLines = 4096;
    static constexpr std::size_t kClientQueueBytes = std::size_t{8} * 1024 * 1024;
    static constexpr std::size_t kLongestBody = std::size_t{64} * 1024;

    // Starts keeping the output's recent lines at once, so that the page
    // shows the start-up too.
    LiveView(Output& output, const standin::Config& config, standin::Database& database,
             bool simulated);
    ~LiveView();
    LiveView(const LiveView&) = delete;
    LiveView& operator=(const LiveView&) = delete;

    // Binds [ADDR:]PORT (port 0: any free one) and serves on a thread of its
    // own. Returns "" or the reason it cannot.
    std::string listen(const std::string& address);
    // The page's address, once listening.
    std::string url() const;
    // From now on POST /command runs lines through the script (before it: 503).
    void attach(Script& script);
    // Ends every stream and stops serving; waits for the server's threads.
    void stop();

private:
    struct Client;
    using Line = std::shared_ptr<const std::string>;

    void publish(const Json& line);
    bool allowed(const httplib::Request& request) const;
    void events(httplib::Response& response);
    void command(std::string line, httplib::Response& response);
    void info(httplib::Response& response) const;
    void state(httplib::Response& response);

    Output& output_;
    const standin::Config& config_;
    standin::Database& database_;
    const bool simulated_;
    int subscription_ = -1;
    std::unique_ptr<httplib::Server> server_;
    std::thread listener_;
    std::string host_;
    int port_ = 0;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Line> history_;                    // guarded by mutex_
    std::size_t history_bytes_ = 0;               // guarded by mutex_
    std::list<std::shared_ptr<Client>> clients_;  // guarded by mutex_
    bool stopping_ = false;                       // guarded by mutex_
    Script* script_ = nullptr;                    // guarded by mutex_
};

}  // namespace terminal
