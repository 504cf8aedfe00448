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
// The port controls the terminal. The server (bounded_server.h) bounds
// connections, request heads and bodies and forbids framing; on top of it:
// - the guard (guard.h): a Host or Origin header that names another site gets
//   403; off loopback every request needs the secret (401 without it);
// - at most kMostStreams watching pages at once (503 past it);
// - a posted line waits at most kLongestPostedWait, and for the script at
//   most kLongestScriptWait (503), so no page holds the script;
// - the history (history.h) is bounded in lines and bytes.
// It is a tool for a bench or a trusted network: the secret is not
// encryption, and anyone who can read the traffic can read the secret.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "lines/messages.h"
#include "lines/output.h"
#include "live/guard.h"
#include "live/history.h"
#include "script/runner.h"
#include "standin/config.h"
#include "standin/database.h"

namespace httplib {
struct Request;
struct Response;
}  // namespace httplib

namespace terminal {

class BoundedServer;

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
    LiveView(lines::Output& output, const standin::Config& config, standin::Database& database,
             bool simulated, const lines::Messages& messages);
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
    void publish(const lines::Json& line);
    void events(httplib::Response& response);
    void command(std::string line, httplib::Response& response);
    void info(httplib::Response& response) const;
    void state(httplib::Response& response);

    lines::Output& output_;
    const standin::Config& config_;
    standin::Database& database_;
    const bool simulated_;
    const lines::Messages& messages_;
    History history_;
    int subscription_ = -1;
    std::optional<Guard> guard_;
    std::unique_ptr<BoundedServer> server_;
    std::thread listener_;
    std::string host_;
    int port_ = 0;

    std::mutex mutex_;
    std::size_t streams_ = 0;   // guarded by mutex_
    Script* script_ = nullptr;  // guarded by mutex_
};

}  // namespace terminal
