#include "live/live_view.h"

#include <algorithm>
#include <deque>
#include <utility>
#include <vector>

#include "ac/ac.h"
#include "bus/observers.h"
#include "script/records.h"
#include "simulator/protocol.h"
#include "web_assets.h"

namespace terminal {

namespace {

using namespace std::chrono_literals;
using lines::Json;

// How long a stream's write waits for a line: a page that went away is
// noticed between two writes, so within about that.
constexpr auto kStreamWait = 500ms;
// A stream that sent nothing for this long sends a comment line: less than
// the server's idle time-out, which would end it.
constexpr auto kHeartbeat = 2s;
const std::string kHeartbeatLine = ": \n\n";
// How long the plug-in may take to answer a read of its state.
constexpr std::chrono::milliseconds kStateReadLimit = 2s;

// Every answer: no page of another site may frame the live view, and the
// page runs only its own scripts and styles and talks only to this server.
const live::Fields kEveryAnswer = {
    {"X-Frame-Options", "DENY"},
    {"Content-Security-Policy",
     "default-src 'self'; frame-ancestors 'none'; base-uri 'none'; form-action 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
};

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

live::Response text(int status, const std::string& why)
{
    live::Response response;
    response.status = status;
    response.body = why;
    return response;
}

live::Response json(const Json& body)
{
    live::Response response;
    response.content_type = "application/json";
    response.body = lines::compact(body);
    response.headers.emplace_back("Cache-Control", "no-cache");
    return response;
}

// What one stream has sent of the history: the number of the next event,
// and the rest of the event it is in the middle of.
struct StreamPosition {
    std::uint64_t next = 0;
    History::Event event;
    std::size_t sent = 0;
    std::deque<History::Event> waiting;
    std::chrono::steady_clock::time_point last_sent = std::chrono::steady_clock::now();
};

// Copies as much of the waiting events as fits; 0 when none waits.
std::size_t copy_waiting(StreamPosition& position, char* buffer, std::size_t room)
{
    std::size_t copied = 0;
    while (copied < room) {
        if (!position.event || position.sent == position.event->size()) {
            if (position.waiting.empty())
                break;
            position.event = position.waiting.front();
            position.waiting.pop_front();
            position.sent = 0;
        }
        const std::size_t part = std::min(room - copied, position.event->size() - position.sent);
        std::copy_n(position.event->data() + position.sent, part, buffer + copied);
        position.sent += part;
        copied += part;
    }
    return copied;
}

}  // namespace

LiveView::LiveView(lines::Output& output, const standin::Config& config,
                   standin::Database& database, bool simulated, const lines::Messages& messages)
    : output_(output),
      config_(config),
      database_(database),
      simulated_(simulated),
      messages_(messages),
      history_(std::make_shared<History>(kHistoryLines, kHistoryBytes))
{
    subscription_ = output_.subscribe(
        [this](const Json& line, const std::string& json) { publish(line, json); });
}

LiveView::~LiveView()
{
    stop();
    output_.unsubscribe(subscription_);
}

// Called for every printed line under the output's lock: it only adds the
// line to the history, as the event the streams send.
void LiveView::publish(const Json& line, const std::string& json)
{
    // Each event is the line as printed with --json, with its kind, label
    // and text as the terminal tells it, so that the page tells it alike,
    // and what it changes of what the page shows. A line too long for the
    // page (a dump of many records, say) is left out and its text cut,
    // saying how long it was.
    const lines::Told told = lines::tell(line);
    Json event;
    event["kind"] = lines::name_of(lines::kind_of(line));
    event["label"] = told.label;
    const bool too_long = json.size() > kLongestEvent;
    event["text"] = too_long ? told.text.substr(0, kLongestEvent / 2) + " [cut: the line was " +
                                   std::to_string(json.size()) + " bytes]"
                             : told.text;
    const Json changes = shows(line);
    if (!changes.is_null())
        event["shows"] = changes;
    // The line itself goes in as it was printed, not copied again.
    std::string data = lines::compact(event);
    data.pop_back();
    data += ",\"line\":" + (too_long ? std::string("null") : json) + "}";
    history_->add("data: " + data + "\n\n");
}

std::string LiveView::listen(const std::string& text, const std::string& token)
{
    std::string error;
    const std::optional<ListenAddress> address = parse_listen_address(text, &error);
    if (!address)
        return "--http: " + error;
    host_ = address->host;
    guard_.emplace(host_, is_loopback(host_) ? "" : token.empty() ? new_token() : token);
    server_ = std::make_unique<live::HttpServer>(
        live::HttpLimits{}, [this](const live::Request& request) { return guard(request); },
        [this](const live::Request& request) { return route(request); }, kEveryAnswer);
    error = server_->listen(host_, address->port);
    if (!error.empty()) {
        server_.reset();
        if (error.find("in use") != std::string::npos) {
            return "--http: cannot listen on " + text + ": the port is in use (another " +
                   messages_.program() + ", or another program, listens there)";
        }
        return "--http: " + error;
    }
    return "";
}

std::string LiveView::url() const
{
    const std::string host = host_.find(':') != std::string::npos ? "[" + host_ + "]" : host_;
    return "http://" + host + ":" + std::to_string(server_ ? server_->port() : 0) + "/" +
           (guard_->token().empty() ? "" : "?token=" + guard_->token());
}

void LiveView::attach(Script& script)
{
    std::lock_guard<std::mutex> lock(mutex_);
    script_ = &script;
}

void LiveView::stop()
{
    history_->stop();
    if (server_)
        server_->stop();
}

// Before any byte of a body is read: another site gets 403, a request
// without the secret 401.
std::optional<live::Response> LiveView::guard(const live::Request& request) const
{
    const std::optional<std::string> origin =
        request.has_header("Origin") ? std::optional<std::string>(request.header("Origin"))
                                     : std::nullopt;
    if (!guard_->allowed(request.header("Host"), origin))
        return text(403, "another site may not use this terminal's live view\n");
    if (guard_->secret(request.query("token"), request.header("Cookie"),
                       request.header("Authorization")) == Guard::Secret::missing) {
        return text(401, "this live view needs its secret: open the address that " +
                             messages_.program() + " printed\n");
    }
    return std::nullopt;
}

live::Response LiveView::route(const live::Request& request)
{
    live::Response response = text(404, "no such page\n");
    if (request.method == "GET") {
        for (const web::Asset& asset : web::assets) {
            if (request.path != asset.path)
                continue;
            // The embedded bytes are the page's text.
            response = text(200, std::string(asset.data, asset.data + asset.size));
            response.content_type = asset.type;
            response.headers.emplace_back("Cache-Control", "no-cache");
        }
        if (request.path == "/info")
            response = info();
        else if (request.path == "/state")
            response = state();
        else if (request.path == "/events")
            response = events();
    } else if (request.method == "POST" && request.path == "/command") {
        response = command(request.body);
    }
    // The address as printed carries the secret: the page keeps it as a
    // same-site cookie, which its own requests carry.
    if (guard_->secret(request.query("token"), "", "") == Guard::Secret::in_query)
        response.headers.emplace_back("Set-Cookie", guard_->cookie());
    return response;
}

live::Response LiveView::events()
{
    {
        std::lock_guard<std::mutex> lock(streams_->mutex);
        if (streams_->open >= kMostStreams) {
            return text(503, "too many pages: the live view streams to " +
                                 std::to_string(kMostStreams) + " at once\n");
        }
        ++streams_->open;
    }
    live::Response response;
    response.content_type = "text/event-stream";
    response.headers.emplace_back("Cache-Control", "no-cache");
    auto position = std::make_shared<StreamPosition>();
    position->next = history_->first();
    response.stream = live::Stream{
        [history = history_, position](char* buffer, std::size_t room) -> std::ptrdiff_t {
            std::size_t copied = copy_waiting(*position, buffer, room);
            if (copied == 0) {
                // A page that fell behind the history is dropped.
                std::optional<std::vector<History::Event>> events =
                    history->read(position->next, kStreamWait);
                if (!events)
                    return -1;
                position->waiting.assign(events->begin(), events->end());
                copied = copy_waiting(*position, buffer, room);
            }
            const auto now = std::chrono::steady_clock::now();
            if (copied == 0 && now - position->last_sent >= kHeartbeat &&
                room >= kHeartbeatLine.size()) {
                std::copy(kHeartbeatLine.begin(), kHeartbeatLine.end(), buffer);
                copied = kHeartbeatLine.size();
            }
            if (copied > 0)
                position->last_sent = now;
            return static_cast<std::ptrdiff_t>(copied);
        },
        [streams = streams_] {
            std::lock_guard<std::mutex> lock(streams->mutex);
            --streams->open;
        }};
    return response;
}

// 200: the line ran (and its expectation, if any, was met); 400: not a
// command; 409: an action refused here; 422: an expectation not met; 503:
// the terminal still starts, or the script stayed busy with another line.
// The body says why.
live::Response LiveView::command(std::string line)
{
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    Script* script = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        script = script_;
    }
    if (script == nullptr)
        return text(503, "the terminal is still starting\n");
    if (line.find('\n') != std::string::npos)
        return text(400, "one line at a time\n");
    if (line.find('\0') != std::string::npos)
        return text(400, "a command is text: it holds no NUL byte\n");
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
    return text(status, outcome.kind == Kind::ran ? "" : outcome.text + "\n");
}

live::Response LiveView::info() const
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
    // The page's own bounds: how many events it lists, how many records.
    info["most_events"] = kHistoryLines;
    info["newest_records"] = kNewestRecords;
    return json(info);
}

live::Response LiveView::state()
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
        return text(500, std::string("the records cannot be read: ") + e.what() + "\n");
    }
    return json(body);
}

}  // namespace terminal
