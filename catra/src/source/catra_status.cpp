// Status messages: queries of the enabled flag and the states, and enabling
// and disabling the turnstile with its GPIO hand-over.
#include <algorithm>
#include <iterator>
#include <sstream>

#include "catra_internal.h"

void catra_enabled_callback(ac::Message* msg)
{
    std::lock_guard<std::mutex> lock(state_mutex);
    ac::MessageReply* reply = msg->reply();
    if (reply == nullptr) {
        ac::zorlog::debug("Meio de resposta não definido", __FILE__, __func__, __LINE__);
        return;
    }
    reply->add_int("enabled", catra_enabled ? 1 : 0);
    reply->set_replied();
    msg->set_handled();
}

void catra_state_callback(ac::Message* msg)
{
    std::lock_guard<std::mutex> lock(state_mutex);
    ac::MessageReply* reply = msg->reply();
    if (reply == nullptr) {
        ac::zorlog::debug("Meio de resposta não definido", __FILE__, __func__, __LINE__);
        return;
    }
    reply->add_int("state", current_state);
    reply->add_int("default_state", default_state);
    reply->set_replied();
    msg->set_handled();
}

void catra_set_enabled_callback(ac::Message* msg)
{
    std::lock_guard<std::mutex> lock(state_mutex);

    int requested = 0;
    if (!msg->get_int("enabled", &requested)) {
        throw ac::ac_exception("catra enabled not found!", true);
    }
    const bool wanted = requested != 0;

    if (wanted && !catra_enabled) {
        for (int gpio : solenoid_gpios) {
            send_message_set_value(gpio, false);
        }
        for (int gpio : photo_sensor_gpios) {
            send_message_gpio_update(gpio, false);
        }
        std::vector<int> solenoids_without_collector;
        std::copy_if(solenoid_gpios.begin(), solenoid_gpios.end(),
                     std::back_inserter(solenoids_without_collector),
                     [](int gpio) { return gpio != collector_gpio; });
        for (int gpio : solenoids_without_collector) {
            send_message_gpio_update(gpio, false);
        }
        if (configure_catra("e", "")) {
            catra_enabled = true;
            send_message_catra_enabled_changed(true);
        }
    } else if (!wanted && catra_enabled) {
        if (disable_catra(nullptr)) {
            for (int gpio : photo_sensor_gpios) {
                send_message_gpio_update(gpio, true);
            }
            for (int gpio : solenoid_gpios) {
                if (gpio != collector_gpio) {
                    send_message_gpio_update(gpio, true);
                }
            }
            catra_enabled = false;
            send_message_catra_enabled_changed(false);
        }
    }

    msg->set_handled();
}

void send_message_gpio_update(int gpio, bool enabled)
{
    ac::Message* msg = new ac::Message("gpio_update", 0, nullptr);
    msg->add_int("gpio", gpio);
    msg->add_int("enabled", enabled ? 1 : 0);
    ac::PostOffice::send_message_sync(msg);
}

void send_message_catra_enabled_changed(bool enabled)
{
    ac::Message* msg = new ac::Message("catra_catra_enabled_changed", 0, nullptr);
    msg->add_int("enabled", enabled ? 1 : 0);
    std::ostringstream text;
    text << "Catra enabled : " << (enabled ? 1 : 0);
    ac::zorlog::debug(text.str(), __FILE__, __func__, __LINE__);
    ac::PostOffice::send_message(msg);
}
