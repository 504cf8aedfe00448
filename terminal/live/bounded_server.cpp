#include "live/bounded_server.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

namespace terminal {

namespace {

using namespace std::chrono_literals;

// Each connection is a thread of its own, so that pages can keep their event
// streams open; there are at most `most` of them. A connection past
// the cap, or one whose thread cannot start, is answered 503 at once on the
// accepting thread. Finished threads are joined as new ones start.
class ConnectionThreads : public httplib::TaskQueue {
public:
    ConnectionThreads(std::size_t most, std::chrono::milliseconds grace)
        : most_(most), grace_(grace)
    {
    }

    void enqueue(std::function<void()> task) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        reap();
        if (threads_.size() < most_) {
            auto done = std::make_shared<std::atomic<bool>>(false);
            try {
                threads_.push_back({std::thread([task, done] {
                                        run(task);
                                        done->store(true);
                                    }),
                                    done});
                return;
            } catch (const std::system_error&) {
                // No thread to be had (a process limit, or address space):
                // refused below like a connection past the cap.
            }
        }
        refusing = true;
        run(task);
        refusing = false;
    }

    // Joins the connections that end within the grace; one still running a
    // script line is left to the end of the process, which follows the
    // server's stop.
    void shutdown() override
    {
        std::unique_lock<std::mutex> lock(mutex_);
        const auto deadline = std::chrono::steady_clock::now() + grace_;
        while (std::chrono::steady_clock::now() < deadline &&
               std::any_of(threads_.begin(), threads_.end(),
                           [](const Worker& worker) { return !worker.done->load(); })) {
            lock.unlock();
            std::this_thread::sleep_for(20ms);
            lock.lock();
        }
        for (auto& worker : threads_) {
            if (worker.done->load())
                worker.thread.join();
            else
                worker.thread.detach();
        }
        threads_.clear();
    }

    // Set on the accepting thread while it refuses a connection.
    static thread_local bool refusing;

private:
    struct Worker {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };

    static void run(const std::function<void()>& task)
    {
        try {
            task();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "catra-terminal: live view: %s\n", e.what());
        }
    }

    void reap()  // REQUIRES: mutex_ held
    {
        for (auto it = threads_.begin(); it != threads_.end();) {
            if (it->done->load()) {
                it->thread.join();
                it = threads_.erase(it);
            } else {
                ++it;
            }
        }
    }

    const std::size_t most_;
    const std::chrono::milliseconds grace_;
    std::mutex mutex_;
    std::list<Worker> threads_;
};

thread_local bool ConnectionThreads::refusing = false;

// The headers of every answer: no page of another site may frame the live
// view, and the page runs only its own scripts and styles and talks only to
// this server.
const httplib::Headers kGuardHeaders = {
    {"X-Frame-Options", "DENY"},
    {"Content-Security-Policy",
     "default-src 'self'; frame-ancestors 'none'; base-uri 'none'; form-action 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
};

// An answer written straight to a connection the server does not read.
void refuse(int socket, int status, const std::string& reason, const std::string& text)
{
    std::string answer = "HTTP/1.1 " + std::to_string(status) + " " + reason + "\r\n";
    for (const auto& [name, value] : kGuardHeaders)
        answer.append(name).append(": ").append(value).append("\r\n");
    answer += "Content-Type: text/plain\r\nContent-Length: " + std::to_string(text.size()) +
              "\r\nConnection: close\r\n\r\n" + text;
    (void)::send(socket, answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    // What the client sent already is read, so that closing does not reset
    // the connection before the answer arrives.
    char buffer[4096];
    while (::recv(socket, buffer, sizeof buffer, MSG_DONTWAIT) > 0) {
    }
    ::shutdown(socket, SHUT_RDWR);
    ::close(socket);
}

// A connection's byte stream, bounded: the request head (up to its blank
// line) may be at most longest_head bytes in at most most_header_lines lines,
// and what follows it at most twice longest_body (a body and its chunked
// framing). Past a bound, reads and writes fail and head_too_large() tells.
class BoundedStream : public httplib::Stream {
public:
    BoundedStream(int socket, const HttpLimits& limits)
        : socket_(socket),
          limits_(limits),
          read_timeout_ms_(limits.read_timeout_seconds * 1000),
          write_timeout_ms_(limits.write_timeout_seconds * 1000)
    {
    }

    bool is_readable() const override { return start_ < end_ || wait(POLLIN, read_timeout_ms_); }
    // False too once the client has hung up, so that a stream ends soon
    // after its page went away.
    bool is_writable() const override
    {
        return !over_ && wait(POLLOUT | POLLRDHUP, write_timeout_ms_, POLLRDHUP | POLLHUP);
    }

    ssize_t read(char* data, size_t size) override
    {
        if (over_)
            return -1;
        if (start_ == end_) {
            if (!wait(POLLIN, read_timeout_ms_))
                return -1;
            ssize_t got = -1;
            do {
                got = ::recv(socket_, buffer_, sizeof buffer_, 0);
            } while (got < 0 && errno == EINTR);
            if (got <= 0)
                return got;
            start_ = 0;
            end_ = static_cast<size_t>(got);
        }
        size = std::min(size, end_ - start_);
        for (size_t i = 0; i < size && !over_; ++i)
            count(buffer_[start_ + i]);
        if (over_)
            return -1;
        std::memcpy(data, buffer_ + start_, size);
        start_ += size;
        return static_cast<ssize_t>(size);
    }

    ssize_t write(const char* data, size_t size) override
    {
        if (over_ || !wait(POLLOUT, write_timeout_ms_))
            return -1;
        ssize_t sent = -1;
        do {
            sent = ::send(socket_, data, size, MSG_NOSIGNAL);
        } while (sent < 0 && errno == EINTR);
        if (sent > 0)
            wrote_ = true;
        return sent;
    }

    void get_remote_ip_and_port(std::string& ip, int& port) const override
    {
        address(::getpeername, ip, port);
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override
    {
        address(::getsockname, ip, port);
    }
    socket_t socket() const override { return socket_; }

    bool head_too_large() const { return head_too_large_; }
    bool wrote() const { return wrote_; }

private:
    // True when one of `events` came within the time, and none of `gone`.
    bool wait(short events, int timeout_ms, short gone = 0) const
    {
        pollfd watched{socket_, events, 0};
        int ready = 0;
        do {
            ready = ::poll(&watched, 1, timeout_ms);
        } while (ready < 0 && errno == EINTR);
        return ready > 0 && (watched.revents & (gone | POLLERR)) == 0;
    }

    template <class Name>
    void address(Name name, std::string& ip, int& port) const
    {
        sockaddr_storage storage{};
        socklen_t length = sizeof storage;
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the socket API's type
        if (name(socket_, reinterpret_cast<sockaddr*>(&storage), &length) != 0)
            return;
        char text[INET6_ADDRSTRLEN] = "";
        if (storage.ss_family == AF_INET) {
            sockaddr_in v4{};
            std::memcpy(&v4, &storage, sizeof v4);
            ::inet_ntop(AF_INET, &v4.sin_addr, text, sizeof text);
            port = ntohs(v4.sin_port);
        } else if (storage.ss_family == AF_INET6) {
            sockaddr_in6 v6{};
            std::memcpy(&v6, &storage, sizeof v6);
            ::inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof text);
            port = ntohs(v6.sin6_port);
        }
        ip = text;
    }

    // Counts one byte handed to the server.
    void count(char byte)
    {
        if (in_head_) {
            ++head_bytes_;
            if (byte == '\n') {
                ++head_lines_;
                in_head_ = line_length_ != 0;  // an empty line ends the head
                line_length_ = 0;
            } else if (byte != '\r') {
                ++line_length_;
            }
            if (head_bytes_ > limits_.longest_head || head_lines_ > limits_.most_header_lines + 1)
                head_too_large_ = over_ = true;
        } else if (++body_bytes_ > 2 * limits_.longest_body) {
            over_ = true;
        }
    }

    const int socket_;
    const HttpLimits limits_;
    const int read_timeout_ms_;
    const int write_timeout_ms_;
    char buffer_[4096] = {};
    size_t start_ = 0;
    size_t end_ = 0;
    bool in_head_ = true;
    size_t head_bytes_ = 0;
    size_t head_lines_ = 0;
    size_t line_length_ = 0;
    size_t body_bytes_ = 0;
    bool head_too_large_ = false;
    bool over_ = false;
    bool wrote_ = false;
};

}  // namespace

BoundedServer::BoundedServer(const HttpLimits& limits) : limits_(limits)
{
    new_task_queue = [limits] {
        return new ConnectionThreads(limits.most_connections, limits.shutdown_grace);
    };
    set_read_timeout(limits.read_timeout_seconds, 0);
    set_write_timeout(limits.write_timeout_seconds, 0);
    set_payload_max_length(limits.longest_body);
    set_default_headers(kGuardHeaders);
    // No SO_REUSEPORT: a second server on the same port is refused, instead
    // of the kernel sharing the requests out between the two.
    set_socket_options([](socket_t socket) {
        const int yes = 1;
        ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
}

void BoundedServer::widen_backlog()
{
    ::listen(svr_sock_, kBacklog);
}

bool BoundedServer::process_and_close_socket(socket_t socket)
{
    if (ConnectionThreads::refusing) {
        refuse(socket, 503, "Service Unavailable",
               "too many connections: this server serves " +
                   std::to_string(limits_.most_connections) + " at once\n");
        return false;
    }
    BoundedStream stream(socket, limits_);
    bool closed = false;
    const bool served = process_request(stream, true, closed, [](httplib::Request&) {});
    if (stream.head_too_large() && !stream.wrote()) {
        refuse(socket, 431, "Request Header Fields Too Large",
               "a request head may have at most " + std::to_string(limits_.most_header_lines) +
                   " header lines and " + std::to_string(limits_.longest_head) + " bytes\n");
        return false;
    }
    ::shutdown(socket, SHUT_RDWR);
    ::close(socket);
    return served;
}

}  // namespace terminal
