// An HTTP server that bounds what any client can make it hold, for a tool
// left running on a bench or a trusted network:
// - at most `most_connections` connections at once, each a thread of its own
//   (so that pages can keep event streams open); past the cap, or when no
//   thread can be had, a connection is answered 503 at once;
// - one request per connection, read through a bounded stream: a head of at
//   most `longest_head` bytes in at most `most_header_lines` header lines
//   (431), a body of at most `longest_body` bytes however it is framed (413,
//   from the library for a length, and from the route's reader for chunks);
// - a connection silent for the read time-out is closed;
// - every answer forbids framing by another page (X-Frame-Options,
//   Content-Security-Policy) and lets the page run only its own scripts;
// - no SO_REUSEPORT: a port already in use is refused at bind;
// - a listen backlog of 128 instead of the library's 5.
#pragma once

#include <httplib.h>

#include <chrono>
#include <cstddef>

namespace terminal {

struct HttpLimits {
    std::size_t most_connections = 64;
    std::size_t longest_head = std::size_t{32} * 1024;
    std::size_t most_header_lines = 100;
    std::size_t longest_body = std::size_t{64} * 1024;
    int read_timeout_seconds = 5;
    int write_timeout_seconds = 5;
    // Stopping waits this long for the connections to end.
    std::chrono::milliseconds shutdown_grace{1000};
};

class BoundedServer : public httplib::Server {
public:
    explicit BoundedServer(const HttpLimits& limits);
    // Call once bound.
    void widen_backlog();

private:
    static constexpr int kBacklog = 128;

    bool process_and_close_socket(socket_t socket) override;

    const HttpLimits limits_;
};

}  // namespace terminal
