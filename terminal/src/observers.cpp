#include "observers.h"

#include "standin/standin.h"

namespace terminal {

namespace {

bool& own_send_flag()
{
    thread_local bool active = false;
    return active;
}

const char* kind_name(standin::LogLine::Kind kind)
{
    switch (kind) {
        case standin::LogLine::Kind::debug: return "debug";
        case standin::LogLine::Kind::error: return "error";
        case standin::LogLine::Kind::host: return "host";
    }
    return "host";
}

Json log_json(const standin::LogLine& line)
{
    Json json;
    json["log"] = kind_name(line.kind);
    if (line.kind == standin::LogLine::Kind::debug)
        json["function"] = line.function;
    json["text"] = line.text;
    return json;
}

}  // namespace

Json fields_json(const std::vector<ac::MessageField>& fields)
{
    Json pairs = Json::array();
    for (const ac::MessageField& field : fields) {
        if (field.is_int)
            pairs.push_back(Json::array({field.key, field.int_value}));
        else
            pairs.push_back(Json::array({field.key, field.text}));
    }
    return pairs;
}

OwnSend::OwnSend() : was_active_(own_send_flag())
{
    own_send_flag() = true;
}

OwnSend::~OwnSend()
{
    own_send_flag() = was_active_;
}

bool OwnSend::active()
{
    return own_send_flag();
}

HostObservers::HostObservers(Output& output)
{
    bus_subscription_ =
        standin::Bus::instance().subscribe([&output](const ac::Message& msg, bool /*sync*/) {
            Json line;
            line[OwnSend::active() ? "sent" : "bus"] = msg.type();
            line["fields"] = fields_json(msg.fields());
            output.emit(line);
        });
    standin::Logs::instance().set_echo(false);
    logs_subscription_ = standin::Logs::instance().subscribe(
        [&output](const standin::LogLine& line) { output.emit(log_json(line)); });
}

HostObservers::~HostObservers()
{
    standin::Logs::instance().unsubscribe(logs_subscription_);
    standin::Bus::instance().unsubscribe(bus_subscription_);
}

}  // namespace terminal
