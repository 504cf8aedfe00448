// Plug-in frame: the exported entry, registration with the host, the run loop
// that serves the plug-in's queue, and the plug-in's shared state.
#include <thread>

#include "catra_internal.h"

// ---------------------------------------------------------------- state
// Turnstile state: guarded by state_mutex.
int current_state = CatraState::BLOCKED;
int default_state = CatraState::BLOCKED;
bool catra_enabled = false;
int catra_fd = 0;
bool catra_fd_closed = false;
std::vector<int> solenoid_gpios;
std::vector<bool> solenoid_values;
std::vector<int> photo_sensor_gpios;
std::vector<bool> photo_sensor_values;
int collector_gpio = 0;
std::string release_uuid;
timespec last_event_time = {0, 0};

// Fixed at start-up, read without lock afterwards.
timeval select_timeval = {0, 0};
int watchdog_timeout = 0;

std::mutex state_mutex;
ac::MessageEnqueuer message_enqueuer;

std::mutex rex_mutex;
int rex_pending = 0;

// ---------------------------------------------------------------- frame

const ListenedType listened_types[] = {
    {"catra_catra_enabled", false, false, catra_enabled_callback},
    {"catra_set_catra_enabled", false, false, catra_set_enabled_callback},
    {"catra_state", false, false, catra_state_callback},
    {"liberate_catra", true, false, liberate_catra_callback},
    {"catra_open_collector", true, false, open_collector_callback},
    {"catra_photo_sensor", true, false, get_photo_sensor_callback},
    {"catra_solenoid", true, false, get_solenoid_callback},
    {"catra_set_solenoid", true, false, set_solenoid_callback},
    {"gpio_notified", true, true, gpio_notified_callback},
    {"config_param_set", false, true, config_param_set_callback},
};

const int listened_count = sizeof(listened_types) / sizeof(listened_types[0]);

extern "C" bool init(ac::Plugin* plugin, std::string* error)
{
    plugin->set_name("catra");
    watchdog_timeout = ac::config_util::get_int("catra", "watchdog_timeout", true);

    if (!init_catra(error)) {
        return false;
    }

    std::vector<ac::MessageListener> registry_table;
    std::vector<ac::MessageListener> queue_table;
    for (const ListenedType& row : listened_types) {
        registry_table.push_back(
            {row.type, row.copied ? enqueue_copy_callback : transfer_callback, row.flag});
        queue_table.push_back({row.type, row.handler, row.flag});
    }
    plugin->add_messages_interested(registry_table.data(), listened_count);
    message_enqueuer.listen(queue_table.data(), listened_count);

    plugin->set_run(run);
    return true;
}

int run()
{
    catra_run();
    message_enqueuer.process(watchdog_timeout, keep_alive_callback);
    return 1;
}

// Turnstile start-up on the run thread, before the queue is served; no lock
// is needed because neither the event thread nor any handler runs yet.
void catra_run()
{
    std::string operation_mode;
    ac::config::get_param("catra", "operation_mode", operation_mode, false);
    refresh_default_state(operation_mode);

    const int mode = ac::config_util::exception_mode();
    if (mode == 1) {
        do_execute_command("always");
    } else if (mode == 2) {
        do_execute_command("idle");
    }

    std::thread(do_catra_run).detach();
}

void transfer_callback(ac::Message* msg)
{
    msg->set_handled();
    msg->transfer(&message_enqueuer);
}

void enqueue_copy_callback(ac::Message* msg)
{
    message_enqueuer.enqueue(new ac::Message(*msg), nullptr);
}

void keep_alive_callback()
{
    ac::watchdog::keep_alive("catra");
}
