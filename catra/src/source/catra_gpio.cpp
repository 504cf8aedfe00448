// GPIO signals: dispatch of GPIO notifications, exit-request buttons with
// their short-lived worker, photo-sensor and solenoid levels, and the
// solenoid and open-collector outputs.
#include <chrono>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "catra_internal.h"

// ---------------------------------------------------------------- dispatch

void gpio_notified_callback(ac::Message* msg)
{
    int gpio = 0;
    int value = 0;
    if (!msg->get_int("gpio", &gpio) || !msg->get_int("value", &value)) {
        throw ac::ac_exception("Invalid parameters for message " + msg->type(), true);
    }

    int id = 0;
    if (check_if_is_photo_sensor(gpio, id)) {
        photo_sensor_callback(msg, id, value);
    } else if (check_if_is_solenoid(gpio, id)) {
        solenoid_callback(msg, id, value);
    } else if (check_if_is_rex(gpio, id)) {
        rex_callback(msg, id, value);
    }
}

bool check_if_is_photo_sensor(int gpio, int& id)
{
    std::lock_guard<std::mutex> lock(state_mutex);
    if (catra_enabled) {
        return false;
    }
    for (size_t i = 0; i < photo_sensor_gpios.size(); ++i) {
        if (photo_sensor_gpios[i] == gpio) {
            id = static_cast<int>(i);
            return true;
        }
    }
    return false;
}

bool check_if_is_solenoid(int gpio, int& id)
{
    std::lock_guard<std::mutex> lock(state_mutex);
    for (size_t i = 0; i < solenoid_gpios.size(); ++i) {
        if (solenoid_gpios[i] == gpio) {
            id = static_cast<int>(i);
            return true;
        }
    }
    return false;
}

bool check_if_is_rex(int gpio, int& id)
{
    for (int n = 1; n <= ac::config_util::buttonhole_count(); ++n) {
        if (ac::config_util::buttonhole(n) == gpio) {
            id = n;
            return true;
        }
    }
    return false;
}

// ---------------------------------------------------------------- exit request

void rex_callback(ac::Message* /*msg*/, int id, int value)
{
    if (value == 1 || id < 1 || id > 3) {
        return;
    }
    async_allow_rex(id);
}

namespace {

// Releases the turnstile for the sides collected in rex_pending. Runs on its
// own detached thread; nothing may leave it.
void rex_worker(std::condition_variable& rex_condition)
{
    static const char* const directions[] = {"anticlockwise", "clockwise", "both"};
    try {
        std::unique_lock<std::mutex> lock(rex_mutex);
        try {
            rex_condition.wait_for(lock, std::chrono::milliseconds(100));
            if (rex_pending < 1 || rex_pending > 3) {
                throw std::logic_error("exit-request sides out of range");
            }
            const std::string direction = directions[rex_pending - 1];
            {
                std::lock_guard<std::mutex> state_lock(state_mutex);
                liberate_catra(direction, ac::util::REX);
            }
        } catch (...) {
            rex_pending = 0;
            throw;
        }
        rex_pending = 0;
        lock.unlock();
        ac::util::rex_buzz::activateBuzzer();
    } catch (const ac::ac_exception& e) {
        ac::zorlog::debug(e.what(), __FILE__, "operator()", __LINE__);
    } catch (const std::exception& e) {
        // Any other failure ends the worker the same way: rex_pending is
        // clear, the text is logged, and the next press starts a new worker.
        ac::zorlog::debug(std::string("exit-request worker: ") + e.what(), __FILE__, "operator()",
                          __LINE__);
    } catch (...) {
        ac::zorlog::debug("exit-request worker ended by an unknown exception", __FILE__,
                          "operator()", __LINE__);
    }
}

}  // namespace

void async_allow_rex(int id)
{
    static std::condition_variable rex_condition;

    std::unique_lock<std::mutex> lock(rex_mutex);
    if (rex_pending != 0) {
        rex_pending |= id;
        lock.unlock();
        rex_condition.notify_all();
        return;
    }
    rex_pending = id;
    try {
        std::thread([] { rex_worker(rex_condition); }).detach();
    } catch (const std::system_error& e) {
        // Without a worker nobody would ever clear rex_pending and every later
        // press would be lost: clear it, so that the next press tries again.
        rex_pending = 0;
        ac::error::log(std::string("exit request not served, no worker thread: ") + e.what());
    }
}

// ---------------------------------------------------------------- levels

void photo_sensor_callback(ac::Message* /*msg*/, int id, int value)
{
    std::lock_guard<std::mutex> lock(state_mutex);
    photo_sensor_values.at(id) = value != 0;
    ac::Message* changed = new ac::Message("photo_sensor_changed", 0, nullptr);
    changed->add_int("id", id);
    changed->add_int("value", photo_sensor_values[id] ? 1 : 0);
    ac::PostOffice::send_message(changed);
}

void solenoid_callback(ac::Message* /*msg*/, int id, int value)
{
    std::lock_guard<std::mutex> lock(state_mutex);
    solenoid_values.at(id) = value != 0;
    ac::Message* changed = new ac::Message("solenoid_changed", 0, nullptr);
    changed->add_int("id", id);
    changed->add_int("value", solenoid_values[id] ? 1 : 0);
    ac::PostOffice::send_message(changed);
}

namespace {

// Answers a level query from one of the two level lists.
// REQUIRES: state_mutex held.
void answer_level_query(ac::Message* msg, const std::vector<bool>& values, const char* function,
                        int line)
{
    ac::MessageReply* reply = msg->reply();
    if (reply == nullptr) {
        ac::zorlog::debug("Meio de resposta não definido", __FILE__, function, line);
        return;
    }
    int id = 0;
    if (!msg->get_int("id", &id)) {
        ac::zorlog::debug("Parametro id não encontrado", __FILE__, function, line);
        return;
    }
    bool value = false;
    try {
        value = values.at(static_cast<size_t>(id));
    } catch (const std::out_of_range&) {
        std::ostringstream text;
        text << "id inválido: " << id;
        ac::zorlog::debug(text.str(), __FILE__, function, line);
        return;
    }
    reply->add_int("value", value ? 1 : 0);
    reply->set_replied();
    msg->set_handled();
}

}  // namespace

void get_photo_sensor_callback(ac::Message* msg)
{
    std::lock_guard<std::mutex> lock(state_mutex);
    answer_level_query(msg, photo_sensor_values, __func__, __LINE__);
}

void get_solenoid_callback(ac::Message* msg)
{
    std::lock_guard<std::mutex> lock(state_mutex);
    answer_level_query(msg, solenoid_values, __func__, __LINE__);
}

// ---------------------------------------------------------------- outputs

void set_solenoid_callback(ac::Message* msg)
{
    std::lock_guard<std::mutex> lock(state_mutex);
    if (catra_enabled) {
        return;
    }

    int id = 0;
    int value = 0;
    if (!msg->get_int("id", &id) || !msg->get_int("value", &value)) {
        ac::zorlog::debug("Parametro id ou value não encontrados", __FILE__, __func__, __LINE__);
        return;
    }
    int gpio = 0;
    try {
        gpio = solenoid_gpios.at(static_cast<size_t>(id));
    } catch (const std::out_of_range&) {
        std::ostringstream text;
        text << "id inválido: " << id;
        ac::zorlog::debug(text.str(), __FILE__, __func__, __LINE__);
        return;
    }

    for (size_t i = 0; i < solenoid_values.size(); ++i) {
        if (solenoid_values[i]) {
            send_message_deactivate(solenoid_gpios[i]);
            send_message_set_value(solenoid_gpios[i], false);
        }
    }
    send_message_deactivate(gpio);
    if (value == 0) {
        send_message_set_value(gpio, false);
    } else {
        send_message_activate(gpio, 2000);
    }
    msg->set_handled();
}

void open_collector_callback(ac::Message* msg)
{
    bool enabled = false;
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        enabled = catra_enabled;
    }
    if (!enabled) {
        return;
    }
    open_collector();
    msg->set_handled();
}

void open_collector()
{
    ac::zorlog::debug("open collector", __FILE__, __func__, __LINE__);
    const int gpio = ac::config_util::get_int("collector_gpio", true);
    const int timeout = ac::config_util::get_int("collector_timeout", false);
    send_message_deactivate(gpio);
    send_message_activate(gpio, timeout);
}

void send_message_set_value(int gpio, bool value)
{
    ac::Message* msg = new ac::Message("gpio_set_value", 0, nullptr);
    msg->add_int("gpio", gpio);
    msg->add_int("value", value ? 1 : 0);
    ac::PostOffice::send_message(msg);
}

void send_message_activate(int gpio, int timeout)
{
    ac::Message* msg = new ac::Message("gpio_activate", 0, nullptr);
    msg->add_int("gpio", gpio);
    msg->add_int("timeout", timeout);
    ac::PostOffice::send_message(msg);
}

void send_message_deactivate(int gpio)
{
    ac::Message* msg = new ac::Message("gpio_deactivate", 0, nullptr);
    msg->add_int("gpio", gpio);
    ac::PostOffice::send_message(msg);
}
