#include "http_server.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <future>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>

namespace live {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kBacklog = 128;
// The room a stream's write gets at a time.
constexpr std::size_t kStreamRoom = std::size_t{16} * 1024;
// How long stop() waits for the library's threads.
constexpr auto kStopWait = std::chrono::seconds(1);

Response refusal(int status, std::string why)
{
    Response response;
    response.status = status;
    response.body = std::move(why);
    return response;
}

Response too_many(const HttpLimits& limits)
{
    return refusal(503, "too many connections: the server serves " +
                            std::to_string(limits.most_connections) + " at once\n");
}

Response head_too_large(const HttpLimits& limits)
{
    return refusal(431, "request head too large: at most " + std::to_string(limits.longest_head) +
                            " bytes in at most " + std::to_string(limits.most_header_lines) +
                            " header lines\n");
}

Response body_too_large(const HttpLimits& limits)
{
    return refusal(
        413, "request body too large: at most " + std::to_string(limits.longest_body) + " bytes\n");
}

// The library takes "Name : value" as a header named "Name " (0.9.75 checks
// for it only at its most tolerant level): no route would see it by its name.
Response spaced_name()
{
    return refusal(400, "bad request: white space in a header's name\n");
}

Response internal_error()
{
    return refusal(500, "internal error\n");
}

bool same_name(const std::string& a, const std::string& b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

const std::string* find(const Fields& fields, const std::string& name, bool any_case)
{
    const auto found = std::find_if(fields.begin(), fields.end(), [&](const auto& field) {
        return any_case ? same_name(field.first, name) : field.first == name;
    });
    return found == fields.end() ? nullptr : &found->second;
}

// A socket address of either family, copied out of the system's generic one
// (the socket API's own aliasing, without a cast).
struct Address {
    sa_family_t family = AF_UNSPEC;
    sockaddr_in v4{};
    sockaddr_in6 v6{};
};

Address address_from(const void* address, sa_family_t family)
{
    Address copied;
    copied.family = family;
    if (family == AF_INET)
        std::memcpy(&copied.v4, address, sizeof copied.v4);
    else if (family == AF_INET6)
        std::memcpy(&copied.v6, address, sizeof copied.v6);
    return copied;
}

std::string address_of(const sockaddr* address)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (address == nullptr)
        return text;
    const Address copied = address_from(address, address->sa_family);
    if (copied.family == AF_INET)
        inet_ntop(AF_INET, &copied.v4.sin_addr, text, sizeof text);
    else if (copied.family == AF_INET6)
        inet_ntop(AF_INET6, &copied.v6.sin6_addr, text, sizeof text);
    return text;
}

bool is_loopback(const Address& address)
{
    if (address.family == AF_INET)
        return (ntohl(address.v4.sin_addr.s_addr) >> 24) == 127;
    const in6_addr& v6 = address.v6.sin6_addr;
    return IN6_IS_ADDR_LOOPBACK(&v6) || (IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[12] == 127);
}

// The client closed or half-closed its side: a stream to it ends. The library
// does not watch a connection's reading side while it sends.
bool peer_gone(int fd)
{
    pollfd watched{fd, POLLRDHUP, 0};
    return poll(&watched, 1, 0) > 0 &&
           (watched.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) != 0;
}

// Whether a Content-Length, whose digits the library has checked, says more
// than `most` bytes, however many digits it has.
bool longer_than(const std::string& length, std::size_t most)
{
    const auto first = length.find_first_not_of('0');
    if (first == std::string::npos)
        return false;
    const std::string digits = length.substr(first);
    const std::string bound = std::to_string(most);
    return digits.size() != bound.size() ? digits.size() > bound.size() : digits > bound;
}

enum MHD_Result collect(void* fields, MHD_ValueKind, const char* key, size_t key_size,
                        const char* value, size_t value_size)
{
    try {
        static_cast<Fields*>(fields)->emplace_back(
            std::string(key, key_size), value == nullptr ? "" : std::string(value, value_size));
        return MHD_YES;
    } catch (...) {
        return MHD_NO;
    }
}

// What the server keeps of one request between the library's calls.
struct Exchange {
    std::string target;  // as sent
    bool head_seen = false;
    std::size_t body_seen = 0;
    Request request;
};

class Socket {
public:
    explicit Socket(int fd) : fd_(fd) {}
    ~Socket()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int fd() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

}  // namespace

std::string Request::header(const std::string& name) const
{
    const std::string* value = find(headers, name, true);
    return value == nullptr ? "" : *value;
}

bool Request::has_header(const std::string& name) const
{
    return find(headers, name, true) != nullptr;
}

std::string Request::query(const std::string& name) const
{
    const std::string* value = find(arguments, name, false);
    return value == nullptr ? "" : *value;
}

struct HttpServer::Served {
    Served(const HttpLimits& limits, Guard guard, Route route, Fields every_answer)
        : limits(limits),
          guard(std::move(guard)),
          route(std::move(route)),
          every_answer(std::move(every_answer))
    {
    }
    ~Served()
    {
        if (watchdog.joinable())
            watchdog.join();
    }
    Served(const Served&) = delete;
    Served& operator=(const Served&) = delete;
    Served(Served&&) = delete;
    Served& operator=(Served&&) = delete;

    // A connection as the library opened it.
    // (cppcheck does not follow the structured bindings that read it.)
    struct Slot {
        // cppcheck-suppress unusedStructMember
        int fd;
        Clock::time_point started;
        // cppcheck-suppress unusedStructMember
        bool turned_away;
        bool head_done = false;
        bool cut = false;
    };

    // A stream's body, read by the library on the connection's thread.
    struct Streaming {
        Streaming(Served& served, Stream stream, int fd)
            : served(served), stream(std::move(stream)), fd(fd)
        {
        }
        Streaming(const Streaming&) = delete;
        Streaming& operator=(const Streaming&) = delete;
        Streaming(Streaming&&) = delete;
        Streaming& operator=(Streaming&&) = delete;

        Served& served;
        Stream stream;
        int fd;
        ~Streaming()
        {
            try {
                if (stream.ended)
                    stream.ended();
            } catch (...) {
            }
        }
    };

    const HttpLimits limits;
    const Guard guard;
    const Route route;
    const Fields every_answer;
    MHD_Daemon* daemon = nullptr;
    std::atomic<bool> stopping{false};

    std::mutex mutex;
    std::condition_variable changed;
    std::map<const MHD_Connection*, Slot> slots;  // guarded by mutex
    std::size_t serving = 0;                      // guarded by mutex
    std::thread watchdog;

    void opened(MHD_Connection* connection)
    {
        const int fd =
            MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
        std::lock_guard<std::mutex> lock(mutex);
        const bool turned_away = serving >= limits.most_connections;
        if (!turned_away)
            ++serving;
        slots.insert_or_assign(connection, Slot{fd, Clock::now(), turned_away});
        changed.notify_all();
    }

    void closed(MHD_Connection* connection)
    {
        std::lock_guard<std::mutex> lock(mutex);
        const auto slot = slots.find(connection);
        if (slot == slots.end())
            return;
        if (!slot->second.turned_away)
            --serving;
        slots.erase(slot);
    }

    // The head is in: the deadline no longer applies. True when the
    // connection came past the connections served and is to be turned away.
    bool head_complete(MHD_Connection* connection)
    {
        std::lock_guard<std::mutex> lock(mutex);
        const auto slot = slots.find(connection);
        if (slot == slots.end())
            return true;
        slot->second.head_done = true;
        return slot->second.turned_away;
    }

    // Closes every connection whose head is not in by its deadline. The
    // library closes a socket only after telling closed(), so each fd here
    // is still the connection's.
    void watch()
    {
        std::unique_lock<std::mutex> lock(mutex);
        while (!stopping) {
            const auto now = Clock::now();
            auto next = Clock::time_point::max();
            for (auto& [connection, slot] : slots) {
                if (slot.head_done || slot.cut)
                    continue;
                const auto deadline = slot.started + limits.head_deadline;
                if (deadline <= now) {
                    shutdown(slot.fd, SHUT_RDWR);
                    slot.cut = true;
                } else {
                    next = std::min(next, deadline);
                }
            }
            if (next == Clock::time_point::max())
                changed.wait(lock);
            else
                changed.wait_until(lock, next);
        }
    }

    void end_watch()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
        }
        changed.notify_all();
        if (watchdog.joinable())
            watchdog.join();
    }

    enum MHD_Result first_look(MHD_Connection* connection, const char* method, Exchange& exchange)
    {
        exchange.head_seen = true;
        if (head_complete(connection))
            return answer(connection, too_many(limits));
        const auto* head =
            MHD_get_connection_info(connection, MHD_CONNECTION_INFO_REQUEST_HEADER_SIZE);
        const auto lines = MHD_get_connection_values(connection, MHD_HEADER_KIND, nullptr, nullptr);
        if (head == nullptr || head->header_size > limits.longest_head || lines < 0 ||
            static_cast<std::size_t>(lines) > limits.most_header_lines)
            return answer(connection, head_too_large(limits));

        Request& request = exchange.request;
        request.method = method;
        request.path = exchange.target.substr(0, exchange.target.find('?'));
        request.client = address_of(
            MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS)->client_addr);
        MHD_get_connection_values_n(connection, MHD_HEADER_KIND, &collect, &request.headers);
        MHD_get_connection_values_n(connection, MHD_GET_ARGUMENT_KIND, &collect,
                                    &request.arguments);
        if (std::any_of(request.headers.begin(), request.headers.end(), [](const auto& header) {
                return header.first.find_first_of(" \t") != std::string::npos;
            }))
            return answer(connection, spaced_name());
        // The library reads a body by its Transfer-Encoding when it has one.
        if (!request.has_header("Transfer-Encoding") && request.has_header("Content-Length")) {
            if (longer_than(request.header("Content-Length"), limits.longest_body))
                return answer(connection, body_too_large(limits));
        }
        std::optional<Response> refused;
        try {
            refused = guard(request);
        } catch (...) {
            refused = internal_error();
        }
        return refused ? answer(connection, std::move(*refused)) : MHD_YES;
    }

    // Past the bound a body is counted, not kept; as much again, and the
    // connection is cut.
    enum MHD_Result take_body(Exchange& exchange, const char* data, std::size_t size)
    {
        std::string& body = exchange.request.body;
        exchange.body_seen += size;
        if (exchange.body_seen <= limits.longest_body)
            body.append(data, size);
        else
            std::string().swap(body);
        return exchange.body_seen > 2 * limits.longest_body ? MHD_NO : MHD_YES;
    }

    enum MHD_Result last_look(MHD_Connection* connection, Exchange& exchange)
    {
        if (exchange.body_seen > limits.longest_body)
            return answer(connection, body_too_large(limits));
        Response response;
        try {
            response = route(exchange.request);
        } catch (...) {
            response = internal_error();
        }
        return answer(connection, std::move(response));
    }

    enum MHD_Result answer(MHD_Connection* connection, Response response)
    {
        MHD_Response* answer = nullptr;
        if (response.stream) {
            const int fd =
                MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
            // Owned by the library's answer from here on: its end ends the stream.
            std::unique_ptr<Streaming> streaming(
                new Streaming(*this, std::move(*response.stream), fd));
            answer = MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kStreamRoom, &write_stream,
                                                       streaming.get(), &end_stream);
            if (answer != nullptr)
                (void)streaming.release();
        } else {
            answer = MHD_create_response_from_buffer(response.body.size(), response.body.data(),
                                                     MHD_RESPMEM_MUST_COPY);
        }
        if (answer == nullptr)
            return MHD_NO;
        MHD_add_response_header(answer, "Content-Type", response.content_type.c_str());
        for (const Fields* fields : {&std::as_const(response.headers), &every_answer})
            for (const auto& [name, value] : *fields)
                MHD_add_response_header(answer, name.c_str(), value.c_str());
        // One request per connection: nothing sent after it is read.
        MHD_add_response_header(answer, "Connection", "close");
        const enum MHD_Result queued =
            MHD_queue_response(connection, static_cast<unsigned>(response.status), answer);
        MHD_destroy_response(answer);
        return queued;
    }

    static ssize_t write_stream(void* cls, uint64_t, char* buffer, size_t room)
    {
        auto& streaming = *static_cast<Streaming*>(cls);
        if (streaming.served.stopping || peer_gone(streaming.fd))
            return MHD_CONTENT_READER_END_WITH_ERROR;
        std::ptrdiff_t written = -1;
        try {
            written = streaming.stream.write(buffer, room);
        } catch (...) {
            return MHD_CONTENT_READER_END_WITH_ERROR;
        }
        if (written < 0)
            return MHD_CONTENT_READER_END_OF_STREAM;
        return static_cast<ssize_t>(std::min(static_cast<std::size_t>(written), room));
    }

    static void end_stream(void* cls) { delete static_cast<Streaming*>(cls); }

    static void on_connection(void* cls, MHD_Connection* connection, void**,
                              MHD_ConnectionNotificationCode code)
    {
        try {
            auto& served = *static_cast<Served*>(cls);
            if (code == MHD_CONNECTION_NOTIFY_STARTED)
                served.opened(connection);
            else
                served.closed(connection);
        } catch (...) {
        }
    }

    static void* on_target(void*, const char* target, MHD_Connection*)
    {
        try {
            auto* exchange = new Exchange;
            exchange->target = target;
            return exchange;
        } catch (...) {
            return nullptr;
        }
    }

    static void on_completed(void*, MHD_Connection*, void** exchange, MHD_RequestTerminationCode)
    {
        delete static_cast<Exchange*>(*exchange);
        *exchange = nullptr;
    }

    static enum MHD_Result on_request(void* cls, MHD_Connection* connection, const char*,
                                      const char* method, const char*, const char* data,
                                      size_t* size, void** context)
    {
        auto* exchange = static_cast<Exchange*>(*context);
        if (exchange == nullptr)
            return MHD_NO;
        try {
            auto& served = *static_cast<Served*>(cls);
            if (!exchange->head_seen)
                return served.first_look(connection, method, *exchange);
            if (*size != 0)
                return served.take_body(*exchange, data, std::exchange(*size, 0));
            return served.last_look(connection, *exchange);
        } catch (...) {
            return MHD_NO;
        }
    }
};

HttpServer::HttpServer(const HttpLimits& limits, Guard guard, Route route, Fields every_answer)
    : served_(std::make_shared<Served>(limits, std::move(guard), std::move(route),
                                       std::move(every_answer)))
{
}

HttpServer::~HttpServer()
{
    stop();
}

std::string HttpServer::listen(const std::string& host, int port)
{
    const std::string where = (host.find(':') == std::string::npos ? host : "[" + host + "]") +
                              ":" + std::to_string(port);
    if (!served_ || served_->daemon != nullptr)
        return "cannot listen on " + where + ": the server is already listening or stopped";
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (const int failed = getaddrinfo(host.empty() ? nullptr : host.c_str(),
                                       std::to_string(port).c_str(), &hints, &found)) {
        return "cannot listen on " + where + ": " + gai_strerror(failed);
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, &freeaddrinfo);
    Socket listener(socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    if (listener.fd() < 0 ||
        setsockopt(listener.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(listener.fd(), found->ai_addr, found->ai_addrlen) != 0 ||
        ::listen(listener.fd(), kBacklog) != 0) {
        if (errno == EADDRINUSE)
            return "cannot listen on " + where + ": the port is in use";
        return "cannot listen on " + where + ": " + std::system_category().message(errno);
    }
    sockaddr_storage storage{};
    socklen_t storage_size = sizeof storage;
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the socket API's type
    getsockname(listener.fd(), reinterpret_cast<sockaddr*>(&storage), &storage_size);
    const Address bound = address_from(&storage, storage.ss_family);
    port_ = ntohs(bound.family == AF_INET6 ? bound.v6.sin6_port : bound.v4.sin_port);

    Served* served = served_.get();
    const HttpLimits& limits = served->limits;
    try {
        if (!served->watchdog.joinable())
            served->watchdog = std::thread([served] { served->watch(); });
    } catch (...) {
        return "cannot listen on " + where + ": no thread for the server";
    }
    served->daemon = MHD_start_daemon(
        MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL |
            MHD_USE_ITC,
        0, nullptr, nullptr, &Served::on_request, served, MHD_OPTION_LISTEN_SOCKET, listener.fd(),
        MHD_OPTION_CONNECTION_LIMIT,
        static_cast<unsigned>(limits.most_connections + limits.most_turned_away),
        MHD_OPTION_PER_IP_CONNECTION_LIMIT,
        static_cast<unsigned>(is_loopback(bound) ? 0 : limits.most_per_client),
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, 2 * limits.longest_head, MHD_OPTION_CONNECTION_TIMEOUT,
        static_cast<unsigned>(limits.idle_timeout.count()), MHD_OPTION_STRICT_FOR_CLIENT, 1,
        MHD_OPTION_NOTIFY_CONNECTION, &Served::on_connection, served, MHD_OPTION_URI_LOG_CALLBACK,
        &Served::on_target, served, MHD_OPTION_NOTIFY_COMPLETED, &Served::on_completed, served,
        MHD_OPTION_END);
    if (served->daemon == nullptr)
        return "cannot listen on " + where + ": the HTTP server did not start";
    listener.release();
    return "";
}

int HttpServer::port() const
{
    return port_;
}

void HttpServer::stop()
{
    const std::shared_ptr<Served> served = std::move(served_);
    if (!served)
        return;
    served->end_watch();
    if (served->daemon == nullptr)
        return;
    // No new connection from now on; the port is free at once.
    const MHD_socket listener = MHD_quiesce_daemon(served->daemon);
    if (listener != MHD_INVALID_SOCKET)
        close(listener);
    // The library joins each connection's thread, a route's included: it
    // stops on a thread of its own, which keeps what the threads share.
    auto stopped = std::make_shared<std::promise<void>>();
    std::future<void> done = stopped->get_future();
    try {
        std::thread([served, stopped] {
            MHD_stop_daemon(served->daemon);
            stopped->set_value();
        }).detach();
    } catch (...) {
        MHD_stop_daemon(served->daemon);
        return;
    }
    done.wait_for(kStopWait);
}

}  // namespace live
