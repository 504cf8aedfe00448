#include "live/live_view.h"

#include <httplib.h>

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <system_error>
#include <utility>
#include <vector>

#include "ac/ac.h"
#include "bus/observers.h"
#include "live/bounded_server.h"
#include "script/records.h"
#include "simulator/protocol.h"
#include "web_assets.h"

namespace terminal {

namespace {

using namespace std::chrono_literals;
using lines::Json;

// A stream that saw nothing for this long gets a comment line, so that a
// vanished client is noticed at the next write.
constexpr auto kHeartbeat = 10s;
// How often a quiet stream looks whether its page is still there.
constexpr auto kStreamCheck = 1s;
// A stream sends what came in this long at once, so that a burst of lines
// wakes each page a few times, not once a line.
constexpr auto kStreamBatch = 25ms;
// What /state reads: the newest records, and how long the plug-in may take
// to answer a read of its state.
constexpr std::size_t kNewestRecords = 10;
constexpr std::chrono::milliseconds kStateReadLimit = 2s;

// What the page shows, by the names /state gives them and the stream's
// events update them with.
const char* const kState = "state";
const char* const kDefaultState = "default_state";
const char* const kEnabled = "enabled";
const char* const kOperationMode = "operation_mode";
const char* const kExceptionMode = "exception_mode";
const char* const kRefresh = "refresh";  // the records and counters may have changed

// What an output line changes of what the page shows; null for nothing.
Json shows(const Json& line)
{
    const std::string type = lines::subject(line);
    const auto field = [&line](const char* key) { return lines::field_of(line, key); };
    switch (lines::kind_of(line)) {
        case lines::Kind::bus:
            if (type == "catra_state_changed")
                return Json{{kState, field("state")}};
            if (type == "catra_default_state_changed")
                return Json{{kDefaultState, field("default_state")}};
            if (type == "catra_catra_enabled_changed")
                return Json{{kEnabled, field("enabled")}};
            if (type == "catra_event")
                return Json{{kRefresh, true}};
            break;
        case lines::Kind::reply:
            if (!line.value("replied", false))
                break;
            if (type == "catra_state")
                return Json{{kState, field("state")}, {kDefaultState, field("default_state")}};
            if (type == "catra_catra_enabled")
                return Json{{kEnabled, field("enabled")}};
            break;
        case lines::Kind::sent:
            if (type != "config_param_set")
                break;
            if (field("param") == kOperationMode && field("module") == "catra")
                return Json{{kOperationMode, field("value")}};
            if (field("param") == kExceptionMode && field("module") != "catra" &&
                field("module") != "identifier")
                return Json{{kExceptionMode, field("value")}};
            break;
        default: break;
    }
    return nullptr;
}

void set_text(httplib::Response& response, int status, const std::string& text)
{
    response.status = status;
    response.set_content(text, "text/plain");
}

}  // namespace

LiveView::LiveView(lines::Output& output, const standin::Config& config,
                   standin::Database& database, bool simulated, const lines::Messages& messages)
    : output_(output),
      config_(config),
      database_(database),
      simulated_(simulated),
      messages_(messages),
      history_(kHistoryLines, kHistoryBytes)
{
    subscription_ = output_.subscribe([this](const Json& line) { publish(line); });
}

LiveView::~LiveView()
{
    stop();
    output_.unsubscribe(subscription_);
}

// Called for every printed line under the output's lock: it only adds the
// line to the history, as the event the streams send.
void LiveView::publish(const Json& line)
{
    // Each event is the line as printed with --json, with its kind, label
    // and text as the terminal tells it, so that the page tells it alike,
    // and what it changes of what the page shows.
    const lines::Told told = lines::tell(line);
    Json event;
    event["kind"] = lines::name_of(lines::kind_of(line));
    event["label"] = told.label;
    event["text"] = told.text;
    event["line"] = line;
    const Json changes = shows(line);
    if (!changes.is_null())
        event["shows"] = changes;
    history_.add("data: " + lines::compact(event) + "\n\n");
}

std::string LiveView::listen(const std::string& text, const std::string& token)
{
    std::string error;
    const std::optional<ListenAddress> parsed = parse_listen_address(text, &error);
    if (!parsed)
        return "--http: " + error;
    const ListenAddress& address = *parsed;
    host_ = address.host;
    guard_.emplace(host_, is_loopback(host_) ? "" : token.empty() ? new_token() : token);

    HttpLimits limits;
    limits.most_connections = kMostConnections;
    limits.longest_head = kLongestHead;
    limits.most_header_lines = kMostHeaderLines;
    limits.longest_body = kLongestBody;
    server_ = std::make_unique<BoundedServer>(limits);
    server_->set_pre_routing_handler(
        [this](const httplib::Request& request, httplib::Response& response) {
            const std::optional<std::string> origin =
                request.has_header("Origin")
                    ? std::optional<std::string>(request.get_header_value("Origin"))
                    : std::nullopt;
            if (!guard_->allowed(request.get_header_value("Host"), origin)) {
                set_text(response, 403, "another site may not use this terminal's live view\n");
                return httplib::Server::HandlerResponse::Handled;
            }
            const Guard::Secret secret =
                guard_->secret(request.get_param_value("token"), request.get_header_value("Cookie"),
                               request.get_header_value("Authorization"));
            if (secret == Guard::Secret::missing) {
                set_text(response, 401,
                         "this live view needs its secret: open the address that " +
                             messages_.program() + " printed\n");
                return httplib::Server::HandlerResponse::Handled;
            }
            if (secret == Guard::Secret::in_query)
                response.set_header("Set-Cookie", guard_->cookie());
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
            set_text(response, 415, "a command is one line of text, not a form\n");
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
            set_text(response, 413,
                     "a command is at most " + std::to_string(kLongestBody) + " bytes\n");
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
               (failure == EADDRINUSE ? "the port is in use (another " + messages_.program() +
                                            ", or another program, listens there)"
                                      : std::system_category().message(failure));
    }
    server_->widen_backlog();
    if (address.port != 0)
        port_ = address.port;
    listener_ = std::thread([this] {
        try {
            server_->listen_after_bind();
        } catch (const std::exception& e) {
            messages_.say(std::string("live view: ") + e.what());
        }
    });
    return "";
}

std::string LiveView::url() const
{
    const std::string host = host_.find(':') != std::string::npos ? "[" + host_ + "]" : host_;
    return "http://" + host + ":" + std::to_string(port_) + "/" +
           (guard_->token().empty() ? "" : "?token=" + guard_->token());
}

void LiveView::attach(Script& script)
{
    std::lock_guard<std::mutex> lock(mutex_);
    script_ = &script;
}

void LiveView::stop()
{
    history_.stop();
    if (server_)
        server_->stop();
    if (listener_.joinable())
        listener_.join();
}

void LiveView::events(httplib::Response& response)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (streams_ >= kMostStreams) {
            set_text(response, 503,
                     "too many pages: the live view streams to " + std::to_string(kMostStreams) +
                         " at once\n");
            return;
        }
        ++streams_;
    }
    response.set_header("Cache-Control", "no-cache");
    response.set_chunked_content_provider(
        "text/event-stream",
        [this, next = history_.first(), quiet_since = std::chrono::steady_clock::now()](
            std::size_t, httplib::DataSink& sink) mutable {
            const std::optional<std::vector<History::Event>> events =
                history_.read(next, kStreamCheck);
            // A page that fell behind the history is dropped.
            if (!events)
                return false;
            const auto now = std::chrono::steady_clock::now();
            if (events->empty()) {
                // Back to the library, which ends the stream if the page has
                // gone; a comment line now and then keeps the connection.
                if (now - quiet_since < kHeartbeat)
                    return true;
                quiet_since = now;
                return sink.write(": \n\n", 3);
            }
            quiet_since = now;
            const bool sent =
                std::all_of(events->begin(), events->end(), [&sink](const History::Event& event) {
                    return sink.write(event->data(), event->size());
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
        set_text(response, 503, "the terminal is still starting\n");
        return;
    }
    if (line.find('\n') != std::string::npos) {
        set_text(response, 400, "one line at a time\n");
        return;
    }
    const Script::Outcome outcome =
        script->run_posted(line, kLongestPostedWait, kLongestScriptWait);
    using Kind = Script::Outcome::Kind;
    int status = 200;
    switch (outcome.kind) {
        case Kind::ran: status = 200; break;
        case Kind::bad: status = 400; break;
        case Kind::refused: status = 409; break;
        case Kind::unmet: status = 422; break;
        case Kind::busy: status = 503; break;
    }
    set_text(response, status, outcome.kind == Kind::ran ? "" : outcome.text + "\n");
}

void LiveView::info(httplib::Response& response) const
{
    auto value = [this](const char* module, const char* key) {
        std::string text;
        config_.get(module, key, &text);
        return text;
    };
    Json info;
    info["simulated"] = simulated_;
    info["device_path"] = value("catra", "device_path");
    // As the host gives them to the plug-in: -1 for an entry that is no GPIO,
    // so that each button keeps its position.
    info["buttonholes"] = Json::array();
    for (int n = 1; n <= ac::config_util::buttonhole_count(); ++n)
        info["buttonholes"].push_back(ac::config_util::buttonhole(n));
    info[kOperationMode] = value("catra", "operation_mode");
    info[kExceptionMode] = value("host", "exception_mode");
    info["gateway"] = value("catra", "gateway");
    Json names = Json::object();
    for (const simulator::EventLetter& event : simulator::kEvents)
        names[std::string(1, event.letter)] = event.name;
    info["event_names"] = names;
    info["kinds"] = lines::kind_names();
    // A person's turn on each side (the page's buttons "turn-left" and
    // "turn-right"), as the line that the script runs.
    Json turns = Json::object();
    for (const simulator::Side side : simulator::kSides)
        turns[std::string(simulator::side_name(side))] = lines::compact(lines::turn_command(side));
    info["turns"] = turns;
    response.set_content(lines::compact(info), "application/json");
}

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
    body[kState] = field(state, "state");
    body[kDefaultState] = field(state, "default_state");
    body[kEnabled] = field(enabled, "enabled");
    try {
        body["counters"] = dump_records(database_, "counters");
        body["access_events"] = dump_records(database_, "access_events", kNewestRecords);
        body["access_logs"] = dump_records(database_, "access_logs", kNewestRecords);
    } catch (const std::exception& e) {
        set_text(response, 500, std::string("the records cannot be read: ") + e.what() + "\n");
        return;
    }
    response.set_header("Cache-Control", "no-cache");
    response.set_content(lines::compact(body), "application/json");
}

}  // namespace terminal
