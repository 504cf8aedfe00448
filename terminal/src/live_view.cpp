#include "live_view.h"

#include <arpa/inet.h>
#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <sstream>
#include <system_error>
#include <utility>

#include "ac/ac.h"
#include "observers.h"
#include "records.h"
#include "web_assets.h"

namespace terminal {

namespace {

using namespace std::chrono_literals;

// A stream that saw nothing for this long gets a comment line, so that a
// vanished client is noticed at the next write.
constexpr auto kHeartbeat = 10s;
constexpr time_t kWriteTimeoutSeconds = 5;
// An idle kept-alive connection closes after this long, so that stopping
// does not wait for it.
constexpr time_t kKeepAliveSeconds = 2;
constexpr auto kShutdownGrace = 3s;
// What /state reads: the newest records, and how long the plug-in may take
// to answer a read of its state.
constexpr std::size_t kNewestRecords = 10;
constexpr std::chrono::milliseconds kStateReadLimit = 2s;

struct Address {
    std::string host;
    int port = -1;
};

// [ADDR:]PORT, ADDR an IPv4 literal, "localhost" or a bracketed IPv6 literal.
std::string parse_address(const std::string& text, Address& address)
{
    std::string host = "127.0.0.1";
    std::string port = text;
    const auto colon = text.rfind(':');
    if (colon != std::string::npos) {
        host = text.substr(0, colon);
        port = text.substr(colon + 1);
        if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
            host = host.substr(1, host.size() - 2);
        in6_addr ip{};
        if (host != "localhost" && ::inet_pton(AF_INET, host.c_str(), &ip) != 1 &&
            ::inet_pton(AF_INET6, host.c_str(), &ip) != 1)
            return "\"" + host + "\" is not an IP address or localhost";
    }
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != port.npos ||
        std::stoi(port) > 65535)
        return "the port must be a number from 0 to 65535, not \"" + port + "\"";
    address.host = host;
    address.port = std::stoi(port);
    return "";
}

bool is_ip_literal(const std::string& host)
{
    in6_addr ip{};
    return ::inet_pton(AF_INET, host.c_str(), &ip) == 1 ||
           ::inet_pton(AF_INET6, host.c_str(), &ip) == 1;
}

bool is_loopback(const std::string& host)
{
    in_addr ip{};
    if (::inet_pton(AF_INET, host.c_str(), &ip) == 1)
        return (ntohl(ip.s_addr) >> 24) == 127;
    return host == "localhost" || host == "::1";
}

// The host name of a Host header value ("name:port", "[v6]:port", "name").
std::string host_name(const std::string& value)
{
    if (!value.empty() && value.front() == '[') {
        const auto end = value.find(']');
        return end == std::string::npos ? value : value.substr(1, end - 1);
    }
    return value.substr(0, value.find(':'));
}

// One thread for each connection, so that any number of pages can keep their
// event streams open. Finished threads are joined as new ones start.
class ConnectionThreads : public httplib::TaskQueue {
public:
    void enqueue(std::function<void()> task) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        reap();
        auto done = std::make_shared<std::atomic<bool>>(false);
        threads_.push_back({std::thread([task = std::move(task), done] {
                                try {
                                    task();
                                } catch (const std::exception& e) {
                                    std::fprintf(stderr, "catra-terminal: live view: %s\n",
                                                 e.what());
                                }
                                done->store(true);
                            }),
                            done});
    }

    // Joins the connections that end within the grace; one still running a
    // long script line (a "wait_ms", say) is left to the end of the process,
    // which follows the server's stop.
    void shutdown() override
    {
        std::unique_lock<std::mutex> lock(mutex_);
        const auto deadline = std::chrono::steady_clock::now() + kShutdownGrace;
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

private:
    struct Worker {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };

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

    std::mutex mutex_;
    std::list<Worker> threads_;
};

}  // namespace

struct LiveView::Client {
    std::deque<Line> queue;
    std::size_t live_bytes = 0;  // queued after the history
    bool dropped = false;        // fell behind: its stream ends
};

std::string http_address_error(const std::string& text)
{
    Address address;
    return parse_address(text, address);
}

StopSignals::StopSignals()
{
    sigemptyset(&set_);
    sigaddset(&set_, SIGINT);
    sigaddset(&set_, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set_, nullptr);
    // A page that goes away mid-write must not end the terminal.
    std::signal(SIGPIPE, SIG_IGN);
}

int StopSignals::wait()
{
    int signal = 0;
    while (sigwait(&set_, &signal) != 0) {
    }
    return signal;
}

LiveView::LiveView(Output& output, const standin::Config& config, standin::Database& database,
                   bool simulated)
    : output_(output), config_(config), database_(database), simulated_(simulated)
{
    subscription_ = output_.subscribe([this](const Json& line) { publish(line); });
}

LiveView::~LiveView()
{
    stop();
    output_.unsubscribe(subscription_);
}

void LiveView::publish(const Json& line)
{
    auto text = std::make_shared<const std::string>(
        "data: " + line.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n\n");
    {
        std::lock_guard<std::mutex> lock(mutex_);
        history_.push_back(text);
        history_bytes_ += text->size();
        while (history_.size() > kHistoryLines ||
               (history_.size() > kHistoryLinesKept && history_bytes_ > kHistoryBytes)) {
            history_bytes_ -= history_.front()->size();
            history_.pop_front();
        }
        for (const auto& client : clients_) {
            client->live_bytes += text->size();
            if (client->queue.size() >= kClientQueueLines || client->live_bytes > kClientQueueBytes)
                client->dropped = true;
            else if (!client->dropped)
                client->queue.push_back(text);
        }
    }
    changed_.notify_all();
}

std::string LiveView::listen(const std::string& text)
{
    Address address;
    std::string error = parse_address(text, address);
    if (!error.empty())
        return "--http: " + error;
    host_ = address.host;

    server_ = std::make_unique<httplib::Server>();
    server_->new_task_queue = [] { return new ConnectionThreads; };
    server_->set_payload_max_length(kLongestBody);
    server_->set_write_timeout(kWriteTimeoutSeconds, 0);
    server_->set_keep_alive_timeout(kKeepAliveSeconds);
    server_->set_pre_routing_handler([this](const httplib::Request& request,
                                            httplib::Response& response) {
        if (allowed(request))
            return httplib::Server::HandlerResponse::Unhandled;
        response.status = 403;
        response.set_content("another site may not use this terminal's live view\n", "text/plain");
        return httplib::Server::HandlerResponse::Handled;
    });
    for (const web::Asset& asset : web::assets) {
        server_->Get(asset.path, [&asset](const httplib::Request&, httplib::Response& response) {
            // The embedded bytes are the page's text, as the library takes it.
            // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast)
            response.set_content(reinterpret_cast<const char*>(asset.data), asset.size, asset.type);
            response.set_header("Cache-Control", "no-cache");
        });
    }
    server_->Get("/info",
                 [this](const httplib::Request&, httplib::Response& response) { info(response); });
    server_->Get("/state",
                 [this](const httplib::Request&, httplib::Response& response) { state(response); });
    server_->Get("/events", [this](const httplib::Request&, httplib::Response& response) {
        events(response);
    });
    // Read through a content reader: the library's own body reading limits
    // form-encoded bodies (what curl and urllib send by default) to 8 KiB.
    server_->Post("/command", [this](const httplib::Request& request, httplib::Response& response,
                                     const httplib::ContentReader& reader) {
        if (request.is_multipart_form_data()) {
            response.status = 415;
            response.set_content("a command is one line of text, not a form\n", "text/plain");
            return;
        }
        std::string body;
        if (!reader([&body](const char* data, std::size_t size) {
                body.append(data, size);
                return true;
            }))
            return;
        command(body, response);
    });

    const bool bound = address.port == 0 ? (port_ = server_->bind_to_any_port(host_)) > 0
                                         : server_->bind_to_port(host_, address.port);
    if (!bound) {
        const std::string reason = std::generic_category().message(errno);
        server_.reset();
        return "--http: cannot listen on " + text + ": " + reason;
    }
    if (address.port != 0)
        port_ = address.port;
    listener_ = std::thread([this] {
        try {
            server_->listen_after_bind();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "catra-terminal: live view: %s\n", e.what());
        }
    });
    return "";
}

std::string LiveView::url() const
{
    const std::string host = host_.find(':') != std::string::npos ? "[" + host_ + "]" : host_;
    return "http://" + host + ":" + std::to_string(port_) + "/";
}

void LiveView::attach(Script& script)
{
    std::lock_guard<std::mutex> lock(mutex_);
    script_ = &script;
}

void LiveView::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (server_)
        server_->stop();
    if (listener_.joinable())
        listener_.join();
}

// Loopback names, the address listened on, and (listening on every address)
// any IP literal; an Origin must be this very server.
bool LiveView::allowed(const httplib::Request& request) const
{
    const std::string host_header = request.get_header_value("Host");
    const std::string host = host_name(host_header);
    const bool wildcard = host_ == "0.0.0.0" || host_ == "::";
    if (host.empty() || !(is_loopback(host) || host == host_ || (wildcard && is_ip_literal(host))))
        return false;
    if (!request.has_header("Origin"))
        return true;
    return request.get_header_value("Origin") == "http://" + host_header;
}

void LiveView::events(httplib::Response& response)
{
    auto client = std::make_shared<Client>();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        client->queue.assign(history_.begin(), history_.end());
        clients_.push_back(client);
    }
    response.set_header("Cache-Control", "no-cache");
    response.set_chunked_content_provider(
        "text/event-stream",
        [this, client](std::size_t, httplib::DataSink& sink) {
            std::deque<Line> lines;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                changed_.wait_for(lock, kHeartbeat, [&] {
                    return stopping_ || client->dropped || !client->queue.empty();
                });
                if (stopping_ || client->dropped)
                    return false;
                lines.swap(client->queue);
                client->live_bytes = 0;
            }
            if (lines.empty())
                return sink.write(": \n\n", 3);
            for (const Line& line : lines) {
                if (!sink.write(line->data(), line->size()))
                    return false;
            }
            return true;
        },
        [this, client](bool) {
            std::lock_guard<std::mutex> lock(mutex_);
            clients_.remove(client);
        });
}

void LiveView::command(std::string line, httplib::Response& response)
{
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    Script* script = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        script = script_;
    }
    if (script == nullptr) {
        response.status = 503;
        response.set_content("the terminal is still starting\n", "text/plain");
        return;
    }
    if (line.find('\n') != std::string::npos) {
        response.status = 400;
        response.set_content("one line at a time\n", "text/plain");
        return;
    }
    // A line that ran answers 200; one that is not a command 400; an action
    // refused here 409; an expectation not met 422. The body says why.
    const Script::Outcome outcome = script->run_line(line);
    using Kind = Script::Outcome::Kind;
    response.status = outcome.kind == Kind::ran       ? 200
                      : outcome.kind == Kind::refused ? 409
                      : outcome.kind == Kind::unmet   ? 422
                                                      : 400;
    response.set_content(outcome.kind == Kind::ran ? "" : outcome.text + "\n", "text/plain");
}

void LiveView::info(httplib::Response& response) const
{
    auto value = [this](const char* module, const char* key) {
        std::string text;
        config_.get(module, key, &text);
        return text;
    };
    Json buttonholes = Json::array();
    std::istringstream list(value("host", "buttonholes"));
    for (std::string gpio; std::getline(list, gpio, ',');) {
        try {
            buttonholes.push_back(std::stoi(gpio));
        } catch (const std::exception&) {
            // Not a GPIO number: that button is left out.
        }
    }
    Json info;
    info["simulated"] = simulated_;
    info["device_path"] = value("catra", "device_path");
    info["buttonholes"] = buttonholes;
    info["operation_mode"] = value("catra", "operation_mode");
    info["exception_mode"] = value("host", "exception_mode");
    info["gateway"] = value("catra", "gateway");
    Json names = Json::object();
    for (char letter = 'a'; letter <= 'z'; ++letter) {
        const std::string name = event_name(letter);
        if (name != event_name('\0'))
            names[std::string(1, letter)] = name;
    }
    info["event_names"] = names;
    response.set_content(info.dump(-1, ' ', false, Json::error_handler_t::replace),
                         "application/json");
}

}  // namespace terminal

namespace terminal {

void LiveView::state(httplib::Response& response)
{
    // The plug-in's own answers, asked without printing: a read changes
    // nothing in the output, in a recording or in a script's window. A value
    // the plug-in does not give (still starting, or busy past the limit) is
    // null.
    auto field = [](const std::optional<Reply>& reply, const char* key) {
        if (reply && reply->replied) {
            for (const Json& pair : reply->fields) {
                if (pair.at(0) == key)
                    return pair.at(1);
            }
        }
        return Json();
    };
    auto read = [](const char* type) {
        return ask(std::make_unique<ac::Message>(type, 0, nullptr), kStateReadLimit, false);
    };
    const std::optional<Reply> state = read("catra_state");
    const std::optional<Reply> enabled = read("catra_catra_enabled");
    Json body;
    body["state"] = field(state, "state");
    body["default_state"] = field(state, "default_state");
    body["enabled"] = field(enabled, "enabled");
    try {
        body["counters"] = dump_records(database_, "counters");
        body["access_events"] = dump_records(database_, "access_events", kNewestRecords);
        body["access_logs"] = dump_records(database_, "access_logs", kNewestRecords);
    } catch (const std::exception& e) {
        response.status = 500;
        response.set_content(std::string("the records cannot be read: ") + e.what() + "\n",
                             "text/plain");
        return;
    }
    response.set_header("Cache-Control", "no-cache");
    response.set_content(body.dump(-1, ' ', false, Json::error_handler_t::replace),
                         "application/json");
}

}  // namespace terminal
