// The live view's HTTP server: GNU libmicrohttpd, one thread per connection,
// behind a small RAII layer whose every bound is a library option where the
// library has one, and otherwise its public callbacks and connection info:
// - at most `most_connections` connections served at once; past them up to
//   `most_turned_away` more are held only to be answered 503 once their head
//   is in, and the library closes the rest at once, unanswered;
// - off loopback, at most `most_per_client` connections from one address
//   (the library closes the others at once);
// - a head (request line and headers, counted in the bytes received, whatever
//   ends its lines) of at most `longest_head` bytes and `most_header_lines`
//   lines (431), complete within `head_deadline` of the connection's start or
//   the connection is closed; a head past twice `longest_head` fills the
//   library's per-connection memory and gets the library's own 431;
// - a body of at most `longest_body` bytes (413): refused before any byte of
//   it is read when Content-Length says so; a chunked body is dropped from
//   the bound on and refused when it ends, and cut off if as much again comes
//   (the library cannot answer in the middle of a body);
// - one request per connection, so that pipelined or smuggled requests are
//   never answered; Range is never served (the library ignores it); a header
//   whose name has white space is a 400 (the library would keep it so);
// - a connection silent for `idle_timeout` is closed, a stream included:
//   a stream sends something more often than that.
// The library's own refusals (a head past its memory, a malformed request
// line or header, HTTP/1.1 without Host, a Content-Length past 64 bits) are
// fixed texts without the `every_answer` headers: it has no hook for them.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace live {

// Every bound the server puts on what one client can make it hold: written here once;
// the live view and the page read them from here.
struct HttpLimits {
    std::size_t most_connections = 64;  // served at once, all clients
    std::size_t most_turned_away = 16;  // past those, held only to be answered 503
    std::size_t most_per_client = 8;    // at once from one address, when serving off loopback
    // Request line and headers, bytes as received, whatever the line ends.
    std::size_t longest_head = std::size_t{32} * 1024;
    std::size_t most_header_lines = 100;
    std::chrono::seconds head_deadline{5};  // for the whole head, from the connection's start
    std::chrono::seconds idle_timeout{5};   // a connection silent this long is closed
    std::size_t longest_body = std::size_t{64} * 1024;
};

using Fields = std::vector<std::pair<std::string, std::string>>;

// What a route sees.
struct Request {
    std::string method;
    std::string path;    // as sent, without its query and not decoded: routes compare it exactly
    std::string client;  // the peer's address
    Fields headers;      // as received, in order
    Fields arguments;    // the query's, decoded
    std::string body;    // at most longest_body; may hold NUL bytes (the route decides)

    std::string header(const std::string& name) const;  // case-insensitive; "" when absent
    bool has_header(const std::string& name) const;
    std::string query(const std::string& name) const;  // "" when absent
};

// A body made piece by piece (an event stream): `write` is called on the connection's thread
// whenever the connection can take more; it copies at most `room` bytes into `buffer` and
// returns how many, 0 when nothing came within its own short wait (under a second), or -1 to
// end the stream. The library calls it again at once after a 0: that wait is what keeps an
// idle stream from spinning, and the page's going is noticed between two calls. `ended` is called
// exactly once when the stream ends for any reason (the client went away or half-closed, the server
// stops, write returned -1).
struct Stream {
    std::function<std::ptrdiff_t(char* buffer, std::size_t room)> write;
    std::function<void()> ended;
};

struct Response {
    int status = 200;
    std::string content_type = "text/plain";
    std::string body;
    Fields headers;
    std::optional<Stream> stream;  // set: the body is this stream
};

using Guard = std::function<std::optional<Response>(const Request&)>;
using Route = std::function<Response(const Request&)>;

class HttpServer {
public:
    // `guard` sees each request as soon as its head is complete, before any byte of its body is
    // read: a response it returns is the answer. `route` answers the requests the guard let
    // through. Both are called on the connections' threads, several at once. `every_answer`
    // headers go on every answer, the server's own refusals included.
    HttpServer(const HttpLimits& limits, Guard guard, Route route, Fields every_answer);
    ~HttpServer();  // stop()
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Binds host:port (port 0: any free port) and serves on the library's threads;
    // "" or why it cannot.
    std::string listen(const std::string& host, int port);
    int port() const;
    // Stops serving and ends every stream; returns within one second whatever the routes do
    // (a route still running past that is left to the end of the process, which follows).
    void stop();

    struct Served;  // what the library's threads share with this object

private:
    std::shared_ptr<Served> served_;
    int port_ = 0;
};

}  // namespace live
