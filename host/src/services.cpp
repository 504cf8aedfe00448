// Host services that answer the plug-in: the online client and GPIO.
#include <algorithm>

#include "ac/config.h"
#include "host_internal.h"

namespace standin {

namespace {

// Answers "online_client_get_operation_mode" as the host key "online_client"
// says: "silent" gives no answer, "no_mode" an answer without "mode", and
// anything else "mode" = the host key "online_client_mode".
void answer_operation_mode(ac::Message& msg)
{
    std::string behaviour = "answer";
    ac::config::get_param("host", "online_client", behaviour, false);
    if (behaviour == "silent")
        return;
    msg.set_handled();
    ac::MessageReply* reply = msg.reply();
    if (!reply)
        return;
    if (behaviour != "no_mode") {
        reply->add_int("mode", ac::config_util::get_int("host", "online_client_mode", false));
    }
    reply->set_replied();
}

// Reads the named int fields; logs and returns false when one is missing.
bool read_ints(const ac::Message& msg, std::initializer_list<std::pair<const char*, int*>> fields)
{
    const auto missing = std::find_if(fields.begin(), fields.end(), [&msg](const auto& field) {
        return !msg.get_int(field.first, field.second);
    });
    if (missing != fields.end()) {
        log_host(msg.type() + " without \"" + missing->first + "\"; ignored");
        return false;
    }
    return true;
}

}  // namespace

GpioService& GpioService::instance()
{
    static GpioService* service = new GpioService();
    return *service;
}

void GpioService::install()
{
    Bus& bus = Bus::instance();
    bus.add_service("gpio_update", [this](ac::Message& msg) {
        msg.set_handled();
        int gpio = 0;
        int enabled = 0;
        if (!read_ints(msg, {{"gpio", &gpio}, {"enabled", &enabled}}))
            return;
        std::lock_guard<std::mutex> lock(mutex_);
        pins_[gpio].enabled = enabled;
    });
    bus.add_service("gpio_set_value", [this](ac::Message& msg) {
        msg.set_handled();
        int gpio = 0;
        int value = 0;
        if (!read_ints(msg, {{"gpio", &gpio}, {"value", &value}}))
            return;
        std::lock_guard<std::mutex> lock(mutex_);
        pins_[gpio].value = value;
    });
    bus.add_service("gpio_activate", [this](ac::Message& msg) {
        msg.set_handled();
        int gpio = 0;
        int timeout = 0;
        if (!read_ints(msg, {{"gpio", &gpio}, {"timeout", &timeout}}))
            return;
        std::lock_guard<std::mutex> lock(mutex_);
        GpioPin& pin = pins_[gpio];
        pin.active = true;
        pin.timeout = timeout;
    });
    bus.add_service("gpio_deactivate", [this](ac::Message& msg) {
        msg.set_handled();
        int gpio = 0;
        if (!read_ints(msg, {{"gpio", &gpio}}))
            return;
        std::lock_guard<std::mutex> lock(mutex_);
        pins_[gpio].active = false;
    });
}

GpioPin GpioService::pin(int gpio) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = pins_.find(gpio);
    return it == pins_.end() ? GpioPin{} : it->second;
}

// Installing again replaces the services with fresh ones of the same kind.
void install_services()
{
    Bus::instance().add_service("online_client_get_operation_mode", answer_operation_mode);
    GpioService::instance().install();
}

}  // namespace standin
