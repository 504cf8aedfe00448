// The live view: a small HTTP server that shows the terminal in a browser.
//
//   GET  /         the page (HTML, CSS and JavaScript built into the program)
//   GET  /info     what the page needs to know: buttonholes, simulated or not,
//                  operation and exception mode, the names of the controller's
//                  event letters, the kinds of output line, a person's turns
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
// The port controls the terminal. The server (http_server.h) bounds
// connections, connections per client, request heads (in bytes, lines and
// time) and bodies; every answer forbids framing; on top of it:
// - the guard (guard.h): a Host or Origin header that names another site gets
//   403; off loopback every request needs the secret (401 without it);
// - at most kMostStreams watching pages at once (503 past it);
// - a posted line waits at most kLongestPostedWait, and for the script at
//   most kLongestScriptWait (503), so no page holds the script; it never
//   counts in the session's result;
// - the history (history.h) is bounded in lines and bytes, and one line's
//   event in bytes (a longer one is cut, saying so); a stream copies from the
//   history as its page reads, so no page holds a copy of it;
// - a stream ends within a second of its page going.
// It is a tool for a bench or a trusted network: the secret is not
// encryption, and anyone who can read the traffic can read the secret.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "lines/messages.h"
#include "lines/output.h"
#include "live/guard.h"
#include "live/history.h"
#include "live/http_server.h"
#include "script/runner.h"
#include "standin/config.h"
#include "standin/database.h"

namespace terminal {

class LiveView {
public:
    // The history: the last 1000 lines, or as many as fit in 4 MiB; one
    // line's event at most 64 KiB.
    static constexpr std::size_t kHistoryLines = 1000;
    static constexpr std::size_t kHistoryBytes = std::size_t{4} * 1024 * 1024;
    static constexpr std::size_t kLongestEvent = std::size_t{64} * 1024;
    static constexpr std::size_t kMostStreams = 32;
    // The newest records /state gives.
    static constexpr std::size_t kNewestRecords = 10;
    static constexpr std::chrono::milliseconds kLongestPostedWait{5000};
    static constexpr std::chrono::milliseconds kLongestScriptWait{2000};

    // Starts keeping the output's recent lines at once, so that the page
    // shows the start-up too.
    LiveView(lines::Output& output, const standin::Config& config, standin::Database& database,
             bool simulated, const lines::Messages& messages);
    ~LiveView();
    LiveView(const LiveView&) = delete;
    LiveView& operator=(const LiveView&) = delete;

    // Binds [ADDR:]PORT (port 0: any free one) and serves on the server's
    // threads. Off loopback, requests must carry `token` (empty: a new random
    // one). Returns "" or the reason it cannot.
    std::string listen(const std::string& address, const std::string& token = "");
    // The page's address, once listening, with the secret when it needs one.
    std::string url() const;
    // From now on POST /command runs lines through the script (before it: 503).
    void attach(Script& script);
    // Ends every stream and stops serving, within a second.
    void stop();

private:
    void publish(const lines::Json& line, const std::string& json);
    std::optional<live::Response> guard(const live::Request& request) const;
    live::Response route(const live::Request& request);
    live::Response events();
    live::Response command(std::string line);
    live::Response info() const;
    live::Response state();

    lines::Output& output_;
    const standin::Config& config_;
    standin::Database& database_;
    const bool simulated_;
    const lines::Messages& messages_;
    std::shared_ptr<History> history_;  // shared with the streams
    int subscription_ = -1;
    std::optional<Guard> guard_;
    std::unique_ptr<live::HttpServer> server_;
    std::string host_;

    // Shared with the streams, which may end after the live view.
    struct Streams {
        std::mutex mutex;
        std::size_t open = 0;  // guarded by mutex
    };
    std::shared_ptr<Streams> streams_ = std::make_shared<Streams>();
    std::mutex mutex_;
    Script* script_ = nullptr;  // guarded by mutex_
};

}  // namespace terminal
