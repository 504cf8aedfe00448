#include "bus/observers.h"

#include <condition_variable>
#include <mutex>
#include <thread>

#include "ac/ac.h"
#include "standin/bus.h"
#include "standin/logs.h"

namespace terminal {

namespace {

// 0: the plug-in's messages; 1: the terminal's own, printed; 2: the
// terminal's own, not printed.
int& own_send_flag()
{
    thread_local int kind = 0;
    return kind;
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
    std::optional<std::string> function;
    if (line.kind == standin::LogLine::Kind::debug)
        function = line.function;
    return lines::log_line(kind_name(line.kind), function, line.text);
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

OwnSend::OwnSend(bool printed) : was_(own_send_flag())
{
    own_send_flag() = printed ? 1 : 2;
}

OwnSend::~OwnSend()
{
    own_send_flag() = was_;
}

bool OwnSend::active()
{
    return own_send_flag() != 0;
}

bool OwnSend::unprinted()
{
    return own_send_flag() == 2;
}

std::optional<Reply> ask(std::unique_ptr<ac::Message> message, std::chrono::milliseconds timeout,
                         bool printed)
{
    // The exchange outlives a sender thread that is left waiting.
    struct Exchange {
        ac::MessageReply reply;
        std::mutex mutex;
        std::condition_variable returned;
        bool done = false;
    };
    auto exchange = std::make_shared<Exchange>();
    message->set_reply(&exchange->reply);
    std::thread sender([exchange, printed, sent = message.release()] {
        {
            OwnSend own(printed);
            ac::PostOffice::send_message_sync(sent);
        }
        std::lock_guard<std::mutex> lock(exchange->mutex);
        exchange->done = true;
        exchange->returned.notify_all();
    });
    std::unique_lock<std::mutex> lock(exchange->mutex);
    if (!exchange->returned.wait_for(lock, timeout, [&] { return exchange->done; })) {
        sender.detach();
        return std::nullopt;
    }
    lock.unlock();
    sender.join();
    return Reply{exchange->reply.replied(), fields_json(exchange->reply.fields())};
}

HostObservers::HostObservers(lines::Output& output)
{
    bus_subscription_ =
        standin::Bus::instance().subscribe([&output](const ac::Message& msg, bool /*sync*/) {
            if (OwnSend::unprinted())
                return;
            output.emit(OwnSend::active() ? lines::sent_line(msg.type(), fields_json(msg.fields()))
                                          : lines::bus_line(msg.type(), fields_json(msg.fields())));
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
