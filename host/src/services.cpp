// Host services that answer the plug-in: the online client and GPIO.
#include "standin/services.h"

#include <algorithm>
#include <vector>

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

// Logs a message that lacks one of the named int fields.
void check_ints(const ac::Message& msg, const std::vector<const char*>& keys)
{
    int value = 0;
    const auto missing = std::find_if(keys.begin(), keys.end(),
                                      [&](const char* key) { return !msg.get_int(key, &value); });
    if (missing != keys.end())
        log_host(msg.type() + " without \"" + *missing + "\"; ignored");
}

}  // namespace

void install_services()
{
    Bus& bus = Bus::instance();
    bus.add_service("online_client_get_operation_mode", answer_operation_mode);
    // The GPIO service takes the plug-in's GPIO messages; the stand-in
    // terminal has no pins to drive, so each is only read.
    const std::pair<const char*, std::vector<const char*>> gpio_messages[] = {
        {"gpio_update", {"gpio", "enabled"}},
        {"gpio_set_value", {"gpio", "value"}},
        {"gpio_activate", {"gpio", "timeout"}},
        {"gpio_deactivate", {"gpio"}}};
    for (const auto& [type, keys] : gpio_messages) {
        bus.add_service(type, [keys = keys](ac::Message& msg) {
            msg.set_handled();
            check_ints(msg, keys);
        });
    }
}

}  // namespace standin
