#include "live_view.h"

#include "bounded_server.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <list>
#include <random>
#include <sstream>
#include <system_error>
#include <utility>
#include <vector>

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
// How often a quiet stream looks whether its page is still there.
constexpr auto kStreamCheck = 1s;
// A stream sends what came in this long at once, so that a burst of lines
// wakes each page a few times, not once a line.
constexpr auto kStreamBatch = 25ms;
// The name of the cookie that carries the secret, once the page has it.
const std::string kTokenCookie = "catra_live_token";
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

}  // namespace

std::string http_address_error(const std::string& text)
{
    Address address;
    return parse_address(text, address);
}

std::string http_token_error(const std::string& text)
{
    const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.';
    });
    if (text.size() < 16 || !plain)
        return "the secret must be 16 or more letters, digits, '-', '_' or '.'";
    return "";
}

namespace {

// 128 random bits, as hexadecimal digits.
std::string new_token()
{
    std::random_device random;
    std::string token;
    for (int i = 0; i < 4; ++i) {
        char part[9];
        std::snprintf(part, sizeof part, "%08x", static_cast<unsigned>(random()));
        token += part;
    }
    return token;
}

// Compares without returning early, so that the time taken tells nothing of
// how much of a guess was right.
bool same_secret(const std::string& given, const std::string& secret)
{
    unsigned char differ = given.size() == secret.size() ? 0 : 1;
    for (std::size_t i = 0; i < secret.size(); ++i)
        differ |= static_cast<unsigned char>(secret[i] ^ (i < given.size() ? given[i] : 0));
    return differ == 0;
}

// The value of one cookie of a Cookie header, or "".
std::string cookie(const std::string& header, const std::string& name)
{
    std::istringstream list(header);
    for (std::string pair; std::getline(list, pair, ';');) {
        const auto start = pair.find_first_not_of(' ');
        if (start != std::string::npos && pair.compare(start, name.size() + 1, name + "=") == 0)
            return pair.substr(start + name.size() + 1);
    }
    return "";
}

}  // namespace

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

void StopSignals::end_at_once_on_next()
{
    std::thread([this] {
        const int signal = wait();
        static const char text[] = "catra-terminal: stopping at once\n";
        (void)::write(STDERR_FILENO, text, sizeof text - 1);
        _exit(128 + signal);
    }).detach();
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

// Called for every printed line under the output's lock: it only appends to
// the history and wakes the streams that wait for a line.
void LiveView::publish(const Json& line)
{
    // Each event is the line as printed with --json, with its kind, label
    // and text as the terminal tells it, so that the page tells it alike.
    const Told told = tell(line);
    Json event;
    event["kind"] = kind_of(line);
    event["label"] = told.label;
    event["text"] = told.text;
    event["line"] = line;
    auto text = std::make_shared<const std::string>(
        "data: " + event.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n\n");
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        history_.push_back(text);
        history_bytes_ += text->size();
        ++next_line_;
        while (history_.size() > kHistoryLines ||
               (history_.size() > 1 && history_bytes_ > kHistoryBytes)) {
            history_bytes_ -= history_.front()->size();
            history_.pop_front();
            ++first_line_;
        }
        wake = streams_waiting_ > 0;
    }
    if (wake)
        changed_.notify_all();
}

std::string LiveView::listen(const std::string& text, const std::string& token)
{
    Address address;
    std::string error = parse_address(text, address);
    if (!error.empty())
        return "--http: " + error;
    host_ = address.host;
    if (!is_loopback(host_))
        token_ = token.empty() ? new_token() : token;

    HttpLimits limits;
    limits.most_connections = kMostConnections;
    limits.longest_head = kLongestHead;
    limits.most_header_lines = kMostHeaderLines;
    limits.longest_body = kLongestBody;
    server_ = std::make_unique<BoundedServer>(limits);
    server_->set_pre_routing_handler(
        [this](const httplib::Request& request, httplib::Response& response) {
            if (!allowed(request)) {
                response.status = 403;
                response.set_content("another site may not use this terminal's live view\n",
                                     "text/plain");
                return httplib::Server::HandlerResponse::Handled;
            }
            if (!authorised(request, response)) {
                response.status = 401;
                response.set_content(
                    "this live view needs its secret: open the address that "
                    "catra-terminal printed\n",
                    "text/plain");
                return httplib::Server::HandlerResponse::Handled;
            }
            return httplib::Server::HandlerResponse::Unhandled;
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
    // Read through a content reader, whatever the body's framing (a length,
    // chunks, or none), and at most kLongestBody of it.
    server_->Post("/command", [this](const httplib::Request& request, httplib::Response& response,
                                     const httplib::ContentReader& reader) {
        if (request.is_multipart_form_data()) {
            response.status = 415;
            response.set_content("a command is one line of text, not a form\n", "text/plain");
            return;
        }
        std::string body;
        bool too_long = false;
        const bool read = reader([&](const char* data, std::size_t size) {
            too_long = body.size() + size > kLongestBody;
            if (!too_long)
                body.append(data, size);
            return !too_long;
        });
        // A length over the bound is refused by the library before any read.
        if (too_long || response.status == 413) {
            response.status = 413;
            response.set_content(
                "a command is at most " + std::to_string(kLongestBody) + " bytes\n", "text/plain");
            return;
        }
        if (!read)
            return;
        command(body, response);
    });

    const bool bound = address.port == 0 ? (port_ = server_->bind_to_any_port(host_)) > 0
                                         : server_->bind_to_port(host_, address.port);
    if (!bound) {
        const int failure = errno;
        server_.reset();
        return "--http: cannot listen on " + text + ": " +
               (failure == EADDRINUSE ? "the port is in use (another catra-terminal, or "
                                        "another program, listens there)"
                                      : std::system_category().message(failure));
    }
    server_->widen_backlog();
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
    return "http://" + host + ":" + std::to_string(port_) + "/" +
           (token_.empty() ? "" : "?token=" + token_);
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

// Off loopback a request carries the secret: in the address (?token=, as
// printed; the answer then gives the page a same-site cookie, so that its
// own requests carry it), in that cookie, or as "Authorization: Bearer".
bool LiveView::authorised(const httplib::Request& request, httplib::Response& response) const
{
    if (token_.empty())
        return true;
    if (same_secret(request.get_param_value("token"), token_)) {
        response.set_header("Set-Cookie",
                            kTokenCookie + "=" + token_ + "; Path=/; HttpOnly; SameSite=Strict");
        return true;
    }
    const std::string bearer = request.get_header_value("Authorization");
    return same_secret(cookie(request.get_header_value("Cookie"), kTokenCookie), token_) ||
           (bearer.rfind("Bearer ", 0) == 0 && same_secret(bearer.substr(7), token_));
}

void LiveView::events(httplib::Response& response)
{
    std::uint64_t next = 0;  // the number of the next line this stream sends
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (streams_ >= kMostStreams) {
            response.status = 503;
            response.set_content("too many pages: the live view streams to " +
                                     std::to_string(kMostStreams) + " at once\n",
                                 "text/plain");
            return;
        }
        ++streams_;
        next = first_line_;
    }
    response.set_header("Cache-Control", "no-cache");
    response.set_chunked_content_provider(
        "text/event-stream",
        [this, next, quiet_since = std::chrono::steady_clock::now()](
            std::size_t, httplib::DataSink& sink) mutable {
            std::vector<Line> lines;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                ++streams_waiting_;
                changed_.wait_for(lock, kStreamCheck,
                                  [&] { return stopping_ || next < next_line_; });
                --streams_waiting_;
                // A page that fell behind the history is dropped.
                if (stopping_ || next < first_line_)
                    return false;
                lines.assign(history_.begin() + static_cast<std::ptrdiff_t>(next - first_line_),
                             history_.end());
                next = next_line_;
            }
            const auto now = std::chrono::steady_clock::now();
            if (lines.empty()) {
                // Back to the library, which ends the stream if the page has
                // gone; a comment line now and then keeps the connection.
                if (now - quiet_since < kHeartbeat)
                    return true;
                quiet_since = now;
                return sink.write(": \n\n", 3);
            }
            quiet_since = now;
            const bool sent = std::all_of(lines.begin(), lines.end(), [&sink](const Line& line) {
                return sink.write(line->data(), line->size());
            });
            if (sent)
                std::this_thread::sleep_for(kStreamBatch);
            return sent;
        },
        [this](bool) {
            std::lock_guard<std::mutex> lock(mutex_);
            --streams_;
        });
}

// 200: the line ran (and its expectation, if any, was met); 400: not a
// command; 409: an action refused here; 422: an expectation not met; 503:
// the terminal still starts, or the script stayed busy with another line.
// The body says why.
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
    const Script::Outcome outcome =
        script->run_posted(line, kLongestPostedWait, kLongestScriptWait);
    using Kind = Script::Outcome::Kind;
    switch (outcome.kind) {
        case Kind::ran: response.status = 200; break;
        case Kind::bad: response.status = 400; break;
        case Kind::refused: response.status = 409; break;
        case Kind::unmet: response.status = 422; break;
        case Kind::busy: response.status = 503; break;
    }
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
    info["kinds"] = line_kinds();
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
