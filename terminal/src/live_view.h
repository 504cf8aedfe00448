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
//                  script, answered with its outcome: 200 when it ran; 400
//                  for a bad line, 409 for an action refused here, 422 for an
//                  unmet expectation, 503 when the script stays busy, each
//                  with the text of why
//
// The port controls the terminal. The server (bounded_server.h) bounds
// connections, request heads and bodies and forbids framing; on top of it:
// - a Host or Origin header that names another site gets 403;
// - off loopback every request needs the secret (401 without it): the printed
//   address carries it once, and the page keeps it as a same-site cookie;
// - at most kMostStreams watching pages at once (503 past it);
// - a posted line waits at most kLongestPostedWait, and for the script at
//   most kLongestScriptWait (503), so no page holds the script;
// - the history is bounded in lines and bytes; a page that falls behind it is
//   dropped (its browser reconnects and gets the history again), so no client
//   ever holds up the terminal's output.
// It is a tool for a bench or a trusted network: the secret is not
// encryption, and anyone who can read the traffic can read the secret.
#pragma once

#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "output.h"
#include "script.h"
#include "standin/standin.h"

namespace httplib {
class ContentReader;
struct Request;
struct Response;
}  // namespace httplib

namespace terminal {

class BoundedServer;

// "" when `text` is a valid [ADDR:]PORT for --http, else what is wrong.
std::string http_address_error(const std::string& text);
// "" when `text` may be the live view's secret (--http-token), else what is wrong.
std::string http_token_error(const std::string& text);

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
    // From now on a second signal ends the process at once, with the exit
    // status of a process killed by it.
    void end_at_once_on_next();

private:
    sigset_t set_{};
};

class LiveView {
public:
    // The history: the last 1000 lines, or as many as fit in 4 MiB.
    static constexpr std::size_t kHistoryLines = 1000;
    static constexpr std::size_t kHistoryBytes = std::size_t{4} * 1024 * 1024;
    static constexpr std::size_t kLongestBody = std::size_t{64} * 1024;
    static constexpr std::size_t kLongestHead = std::size_t{32} * 1024;
    static constexpr std::size_t kMostHeaderLines = 100;
    static constexpr std::size_t kMostConnections = 64;
    static constexpr std::size_t kMostStreams = 32;
    static constexpr std::chrono::milliseconds kLongestPostedWait{5000};
    static constexpr std::chrono::milliseconds kLongestScriptWait{2000};

    // Starts keeping the output's recent lines at once, so that the page
    // shows the start-up too.
    LiveView(Output& output, const standin::Config& config, standin::Database& database,
             bool simulated);
    ~LiveView();
    LiveView(const LiveView&) = delete;
    LiveView& operator=(const LiveView&) = delete;

    // Binds [ADDR:]PORT (port 0: any free one) and serves on a thread of its
    // own. Off loopback, requests must carry `token` (empty: a new random
    // one). Returns "" or the reason it cannot.
    std::string listen(const std::string& address, const std::string& token = "");
    // The page's address, once listening, with the secret when it needs one.
    std::string url() const;
    // From now on POST /command runs lines through the script (before it: 503).
    void attach(Script& script);
    // Ends every stream and stops serving; waits for the server's threads.
    void stop();

private:
    using Line = std::shared_ptr<const std::string>;

    void publish(const Json& line);
    bool allowed(const httplib::Request& request) const;
    bool authorised(const httplib::Request& request, httplib::Response& response) const;
    void events(httplib::Response& response);
    void command(std::string line, httplib::Response& response);
    void info(httplib::Response& response) const;
    void state(httplib::Response& response);

    Output& output_;
    const standin::Config& config_;
    standin::Database& database_;
    const bool simulated_;
    int subscription_ = -1;
    std::unique_ptr<BoundedServer> server_;
    std::thread listener_;
    std::string host_;
    std::string token_;  // empty: none needed (loopback)
    int port_ = 0;

    // The history is a window of the numbered lines printed so far: line
    // first_line_ is history_.front(), line next_line_ the next to come.
    // Each stream keeps the number of the next line it sends.
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Line> history_;         // guarded by mutex_
    std::size_t history_bytes_ = 0;    // guarded by mutex_
    std::uint64_t first_line_ = 0;     // guarded by mutex_
    std::uint64_t next_line_ = 0;      // guarded by mutex_
    std::size_t streams_ = 0;          // guarded by mutex_
    std::size_t streams_waiting_ = 0;  // guarded by mutex_
    bool stopping_ = false;            // guarded by mutex_
    Script* script_ = nullptr;         // guarded by mutex_
};

}  // namespace terminal
