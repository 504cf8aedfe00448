// The live view's HTTP server through real sockets on loopback: one row or
// case per bound, with small limits. Times are printed, never asserted.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "http_server.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Long enough that nothing in a test ends by it: what ends a connection here
// is the bound under test.
constexpr auto kPatience = 10s;

live::HttpLimits small_limits()
{
    live::HttpLimits limits;
    limits.most_connections = 3;
    limits.most_turned_away = 2;
    limits.most_per_client = 2;
    limits.longest_head = 512;
    limits.most_header_lines = 4;
    limits.head_deadline = 1s;
    limits.idle_timeout = 30s;
    limits.longest_body = 100;
    return limits;
}

double seconds_since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

class Client {
public:
    explicit Client(int port, const char* from = nullptr) : fd_(socket(AF_INET, SOCK_STREAM, 0))
    {
        const timeval patience{std::chrono::seconds(kPatience).count(), 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        if (from != nullptr) {
            inet_pton(AF_INET, from, &address.sin_addr);
            EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        }
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
        EXPECT_EQ(connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~Client() { close(fd_); }
    void send(const std::string& bytes) { ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
    // Up to `until` when given, else to the end of the connection.
    std::string read(const std::string& until = "")
    {
        std::string bytes;
        char buffer[4096];
        while (until.empty() || bytes.find(until) == std::string::npos) {
            const ssize_t got = recv(fd_, buffer, sizeof buffer, 0);
            if (got <= 0)
                break;
            bytes.append(buffer, static_cast<std::size_t>(got));
        }
        return bytes;
    }
    void half_close() { shutdown(fd_, SHUT_WR); }
    // Whether the server has closed its side (nothing read).
    bool ended()
    {
        char byte = 0;
        const ssize_t got = recv(fd_, &byte, 1, MSG_DONTWAIT | MSG_PEEK);
        return got == 0 || (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
    }

private:
    int fd_;
};

std::string head_line(const std::string& answer)
{
    return answer.substr(0, answer.find("\r\n"));
}

std::string body_of(const std::string& answer)
{
    const auto end = answer.find("\r\n\r\n");
    return end == std::string::npos ? "" : answer.substr(end + 4);
}

// What the routes share with a test; the routes keep it, since a route may
// outlive stop().
struct Traces {
    std::mutex mutex;
    std::condition_variable changed;
    int ended = 0;
    bool blocked = false, released = false;

    // True once `count` streams have ended.
    bool streams_ended(int count)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, kPatience, [&] { return ended >= count; });
    }
};

// The routes echo a request, stream, or block until released; the guard
// refuses a request with X-Refuse.
live::Response route(const std::shared_ptr<Traces>& traces, const live::Request& request)
{
    live::Response response;
    if (request.path == "/stream") {
        response.content_type = "text/event-stream";
        response.stream = live::Stream{
            [traces, first = true](char* buffer, std::size_t room) mutable -> std::ptrdiff_t {
                const std::string hello = "data: hello\n\n";
                if (std::exchange(first, false) && room >= hello.size())
                    return static_cast<std::ptrdiff_t>(hello.copy(buffer, hello.size()));
                std::unique_lock<std::mutex> lock(traces->mutex);
                traces->changed.wait_for(lock, 200ms);  // the stream's own short wait
                return 0;
            },
            [traces] {
                std::lock_guard<std::mutex> lock(traces->mutex);
                ++traces->ended;
                traces->changed.notify_all();
            }};
    } else if (request.path == "/block") {
        std::unique_lock<std::mutex> lock(traces->mutex);
        traces->blocked = true;
        traces->changed.notify_all();
        traces->changed.wait(lock, [&] { return traces->released; });
    } else {
        response.body = request.method + " " + request.path + " from " + request.client +
                        " q=" + request.query("q") +
                        " body=" + std::to_string(request.body.size()) + "\n";
    }
    return response;
}

class Site {
public:
    explicit Site(live::HttpLimits limits = small_limits(), const std::string& host = "127.0.0.1")
        : traces(std::make_shared<Traces>()),
          server(
              limits,
              [](const live::Request& request) -> std::optional<live::Response> {
                  if (!request.has_header("x-refuse"))
                      return std::nullopt;
                  return live::Response{401, "text/plain", "refused\n", {}, std::nullopt};
              },
              [traces = traces](const live::Request& request) { return route(traces, request); },
              {{"X-Frame-Options", "DENY"}})
    {
        EXPECT_EQ(server.listen(host, 0), "");
    }

    std::string ask(const std::string& request, const char* from = nullptr)
    {
        Client client(server.port(), from);
        client.send(request);
        return client.read();
    }

    std::shared_ptr<Traces> traces;
    live::HttpServer server;
};

const std::string kHost = "Host: here\r\n";

TEST(HttpServer, EachRequestGetsItsAnswerOrTheBoundItPassed)
{
    const std::string too_large_head =
        "request head too large: at most 512 bytes in at most 4 header lines\n";
    const std::string too_large_body = "request body too large: at most 100 bytes\n";
    const struct {
        const char* what;
        std::string request, status, body;
    } rows[] = {
        {"the path as sent, a query decoded, a body at the bound with a NUL",
         "POST /ech%6F?q=a%20b HTTP/1.1\r\n" + kHost + "Content-Length: 100\r\n\r\na" +
             std::string(1, '\0') + std::string(98, 'b'),
         "HTTP/1.1 200 OK", "POST /ech%6F from 127.0.0.1 q=a b body=100\n"},
        {"a header name that ends in a space", "GET /echo HTTP/1.0\r\nX-Refuse : 1\r\n\r\n",
         "HTTP/1.1 400 Bad Request", "bad request: white space in a header's name\n"},
        {"a head over its bytes",
         "GET /echo HTTP/1.1\r\n" + kHost + "X: " + std::string(500, 'x') + "\r\n\r\n",
         "HTTP/1.1 431 Request Header Fields Too Large", too_large_head},
        {"a head over its lines, bare LF",
         "GET /echo HTTP/1.1\nHost: here\nA: 1\nB: 2\nC: 3\nD: 4\n\n",
         "HTTP/1.1 431 Request Header Fields Too Large", too_large_head},
        // Only the head is sent: the answer cannot wait for the body.
        {"a Content-Length over the body's bound",
         "POST /echo HTTP/1.1\r\n" + kHost + "Content-Length: 101\r\n\r\n",
         "HTTP/1.1 413 Content Too Large", too_large_body},
        {"a guard's refusal before the body",
         "POST /echo HTTP/1.1\r\n" + kHost + "X-Refuse: 1\r\nContent-Length: 50\r\n\r\n",
         "HTTP/1.1 401 Unauthorized", "refused\n"},
        {"a chunked body within the bound",
         "POST /echo HTTP/1.1\r\n" + kHost + "Transfer-Encoding: chunked\r\n\r\n64\r\n" +
             std::string(100, 'x') + "\r\n0\r\n\r\n",
         "HTTP/1.1 200 OK", "POST /echo from 127.0.0.1 q= body=100\n"},
        {"a chunked body past the bound",
         "POST /echo HTTP/1.1\r\n" + kHost + "Transfer-Encoding: chunked\r\n\r\n64\r\n" +
             std::string(100, 'x') + "\r\n1\r\nx\r\n0\r\n\r\n",
         "HTTP/1.1 413 Content Too Large", too_large_body},
        {"a chunked body past twice the bound, cut unanswered",
         "POST /echo HTTP/1.1\r\n" + kHost + "Transfer-Encoding: chunked\r\n\r\nc9\r\n" +
             std::string(201, 'x') + "\r\n0\r\n\r\n",
         "", ""},
        {"many ranges", "GET /echo HTTP/1.1\r\n" + kHost + "Range: bytes=0-,0-,0-,0-\r\n\r\n",
         "HTTP/1.1 200 OK", "GET /echo from 127.0.0.1 q= body=0\n"},
        // Anything after the first request is never read.
        {"a request smuggled in a body that Content-Length and chunks frame apart",
         "POST /echo HTTP/1.1\r\n" + kHost +
             "Content-Length: 4\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\nGET /echo?q=2 "
             "HTTP/1.1\r\n" +
             kHost + "\r\n",
         "HTTP/1.1 200 OK", "POST /echo from 127.0.0.1 q= body=0\n"},
    };
    // A slot is freed just after its client has seen the end: one for each row.
    live::HttpLimits limits = small_limits();
    limits.most_connections = std::size(rows);
    Site site(limits);
    for (const auto& row : rows) {
        const std::string answer = site.ask(row.request);
        EXPECT_EQ(head_line(answer), row.status) << row.what;
        EXPECT_EQ(body_of(answer), row.body) << row.what;
        if (answer.empty())
            continue;
        EXPECT_NE(answer.find("\r\nX-Frame-Options: DENY\r\n"), std::string::npos) << row.what;
        EXPECT_NE(answer.find("\r\nConnection: close\r\n"), std::string::npos) << row.what;
    }
}

// A head that comes a byte at a time is cut at its deadline, unanswered,
// however steadily the bytes come.
TEST(HttpServer, AHeadNotCompleteByItsDeadlineIsCut)
{
    Site site;
    Client client(site.server.port());
    const auto start = Clock::now();
    client.send("GET /echo HTTP/1.1\r\n" + kHost + "X-Slow: ");
    for (int byte = 0; byte < 20 && !client.ended(); ++byte) {
        std::this_thread::sleep_for(300ms);  // the client's pace, well inside the idle timeout
        client.send("x");
    }
    EXPECT_TRUE(client.ended());
    EXPECT_EQ(client.read(), "");
    std::printf("head cut %.2f s after the connection's start\n", seconds_since(start));
}

// A connection that stays silent is closed at the idle time-out, long before
// its head's deadline.
TEST(HttpServer, ASilentConnectionIsClosedWhenIdle)
{
    live::HttpLimits limits = small_limits();
    limits.head_deadline = 60s;
    limits.idle_timeout = 1s;
    Site site(limits);
    Client silent(site.server.port());
    const auto start = Clock::now();
    EXPECT_EQ(silent.read(), "");
    EXPECT_TRUE(silent.ended());
    std::printf("a silent connection closed after %.2f s\n", seconds_since(start));
}

// Past the connections served, a connection is answered 503; a page that
// goes, closing or half-closing, frees its stream's slot for the next. On
// loopback, IPv4-mapped too, one client may hold every connection.
TEST(HttpServer, AStreamsSlotIsFreedWhenItsPageGoes)
{
    const std::string stream = "GET /stream HTTP/1.1\r\n" + kHost + "\r\n";
    for (const bool half : {false, true}) {
        Site site(small_limits(), half ? "::ffff:127.0.0.1" : "127.0.0.1");
        std::vector<std::unique_ptr<Client>> pages;
        for (int page = 0; page < 3; ++page) {
            pages.push_back(std::make_unique<Client>(site.server.port()));
            pages.back()->send(stream);
            const std::string head = pages.back()->read("data: hello\n\n");
            EXPECT_EQ(head_line(head), "HTTP/1.1 200 OK");
            EXPECT_NE(head.find("\r\nContent-Type: text/event-stream\r\n"), std::string::npos);
        }
        const std::string refused = site.ask(stream);
        EXPECT_EQ(head_line(refused), "HTTP/1.1 503 Service Unavailable");
        EXPECT_EQ(body_of(refused), "too many connections: the server serves 3 at once\n");

        const auto start = Clock::now();
        if (half)
            pages.front()->half_close();
        else
            pages.front().reset();
        EXPECT_TRUE(site.traces->streams_ended(1)) << (half ? "half-closed" : "closed");
        std::printf("%s page: its stream ended %.2f s later\n", half ? "half-closed" : "closed",
                    seconds_since(start));
        // The library frees the slot just after the stream ends.
        std::string next;
        while (head_line(next) != "HTTP/1.1 200 OK" && Clock::now() - start < kPatience) {
            Client page(site.server.port());
            page.send(stream);
            next = page.read("\r\n\r\n");
        }
        EXPECT_EQ(head_line(next), "HTTP/1.1 200 OK") << (half ? "half-closed" : "closed");
        std::printf("  and its slot served again %.2f s later\n", seconds_since(start));
        std::lock_guard<std::mutex> lock(site.traces->mutex);
        EXPECT_EQ(site.traces->ended, 1);
    }
}

// Off loopback one address holds at most its share of the connections: the
// next from it is closed unanswered while another address is served.
TEST(HttpServer, OneClientHoldsAtMostItsShareOffLoopback)
{
    Site site(small_limits(), "0.0.0.0");
    std::vector<std::unique_ptr<Client>> pages;
    for (int page = 0; page < 2; ++page) {
        pages.push_back(std::make_unique<Client>(site.server.port(), "127.0.0.2"));
        pages.back()->send("GET /stream HTTP/1.1\r\n" + kHost + "\r\n");
        EXPECT_EQ(head_line(pages.back()->read("\r\n\r\n")), "HTTP/1.1 200 OK");
    }
    const std::string echo = "GET /echo HTTP/1.1\r\n" + kHost + "\r\n";
    EXPECT_EQ(site.ask(echo, "127.0.0.2"), "");
    EXPECT_EQ(body_of(site.ask(echo, "127.0.0.3")), "GET /echo from 127.0.0.3 q= body=0\n");
}

// stop() returns with a stream open and a route that does not return; the
// stream ends.
TEST(HttpServer, StopReturnsWithAStreamOpenAndARouteBlocked)
{
    Site site;
    Client page(site.server.port());
    page.send("GET /stream HTTP/1.1\r\n" + kHost + "\r\n");
    EXPECT_EQ(head_line(page.read("\r\n\r\n")), "HTTP/1.1 200 OK");
    Client blocked(site.server.port());
    blocked.send("GET /block HTTP/1.1\r\n" + kHost + "\r\n");
    Traces& traces = *site.traces;
    {
        std::unique_lock<std::mutex> lock(traces.mutex);
        EXPECT_TRUE(traces.changed.wait_for(lock, kPatience, [&] { return traces.blocked; }));
    }
    const auto start = Clock::now();
    site.server.stop();
    std::printf("stop() returned after %.2f s\n", seconds_since(start));
    EXPECT_TRUE(traces.streams_ended(1));
    std::lock_guard<std::mutex> lock(traces.mutex);
    traces.released = true;
    traces.changed.notify_all();
}

}  // namespace
