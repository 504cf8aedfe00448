// Internal header of the turnstile plug-in: the shared state and the functions
// that the plug-in's files call across one another. Nothing here is exported
// from libcatra.so; the library's only public symbol is `init`.
#pragma once

#include <sys/time.h>

#include <condition_variable>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "ac/ac.h"
#include "ac_dal/ac_dal.h"

// ---------------------------------------------------------------- events and states

// Events and states travel as plain ints; each enumeration has its own scope
// because both name a BLOCKED (event 10, state 0), and they stay apart.
namespace CatraEvent {
enum : int {
    ALWAYS_BLOCKED = 0,
    ALWAYS_FREE_LEFT = 1,
    ALWAYS_FREE_RIGHT = 2,
    ALWAYS_FREE_BOTH = 3,
    FREE_LEFT = 4,
    FREE_RIGHT = 5,
    FREE_BOTH = 6,
    TURN_LEFT = 7,
    TURN_RIGHT = 8,
    GIVE_UP = 9,
    BLOCKED = 10,
    EVENT_READY = 11,
    EVENT_NOT_READY = 12,
};
}  // namespace CatraEvent

// Left is anticlockwise, right is clockwise.
namespace CatraState {
enum : int {
    BLOCKED = 0,
    LEFT_LIBERATED = 1,
    RIGHT_LIBERATED = 2,
    BOTH_LIBERATED = 3,
};
}  // namespace CatraState

std::string catra_event_to_string(int event);
std::string catra_state_to_string(int state);

// ---------------------------------------------------------------- plug-in state
// Turnstile state, guarded by state_mutex.
extern int current_state;
extern int default_state;
extern bool catra_enabled;
extern int catra_fd;
// Set (under state_mutex) once the event loop has closed catra_fd after a
// failed wait or read: from then on no command is written to that number.
extern bool catra_fd_closed;
extern std::vector<int> solenoid_gpios;
extern std::vector<bool> solenoid_values;
extern std::vector<int> photo_sensor_gpios;
extern std::vector<bool> photo_sensor_values;
extern int collector_gpio;
extern std::string release_uuid;
extern timespec last_event_time;

// Written once at start-up, before any thread or handler runs; read without lock.
extern timeval select_timeval;
extern int watchdog_timeout;

extern std::mutex state_mutex;
extern ac::MessageEnqueuer message_enqueuer;

// Exit-request bookkeeping, guarded by rex_mutex (taken before state_mutex).
extern std::mutex rex_mutex;
extern int rex_pending;

// ---------------------------------------------------------------- plug-in frame
extern "C" __attribute__((visibility("default"))) bool init(ac::Plugin* plugin, std::string* error);
int run();
void catra_run();
void transfer_callback(ac::Message* msg);
void enqueue_copy_callback(ac::Message* msg);
void keep_alive_callback();

// The message types that the plug-in listens to, in registration order, with
// the flag of each row and the handler that the queue calls.
struct ListenedType {
    const char* type;
    bool flag;
    bool copied;  // queued as a copy rather than transferred
    void (*handler)(ac::Message*);
};
extern const ListenedType listened_types[];
extern const int listened_count;

// ---------------------------------------------------------------- controller link
bool init_catra(std::string* error);
// REQUIRES: state_mutex held by the caller, or start-up before any thread.
void do_execute_command(const std::string& name);
bool configure_catra(const char* code, const std::string& value);
bool disable_catra(std::string* error);
void return_to_default_state();
std::string build_timed_command(const std::string& code);
void activate_relay(int gpio);

// ---------------------------------------------------------------- event processing
void do_catra_run();
// Reads one event from the controller (the descriptor was reported readable)
// and handles it with state_mutex held. False when the device failed or hung
// up and has been closed; exceptions of the handling pass through.
bool read_catra_event();
void new_catra_event(int event);
void send_message_catra_event(const int& event);
void set_default_state(const int& state);
void set_current_state(const int& state);
void send_message_catra_default_state_changed(const int& state);
void send_message_catra_state_changed(const int& state);

// ---------------------------------------------------------------- release and logging
void liberate_catra_callback(ac::Message* msg);
void liberate_catra(const std::string& direction, int reason);
bool online_operation_mode_is_1();
void update_last_log(const int& event);
void create_give_up_log(bool before_last);
void create_give_up_log_local(bool before_last);
void set_portal_actions();
void log_catra_liberated(const std::string& direction, int reason);

// ---------------------------------------------------------------- configuration
void config_param_set_callback(ac::Message* msg);
void catra_config_set_callback(std::string module, std::string param, std::string value);
void exception_mode_config_set_callback(std::string value);
void refresh_default_state(const std::string& operation_mode);

// ---------------------------------------------------------------- GPIO signals
void gpio_notified_callback(ac::Message* msg);
bool check_if_is_photo_sensor(int gpio, int& id);
bool check_if_is_solenoid(int gpio, int& id);
bool check_if_is_rex(int gpio, int& id);
void rex_callback(ac::Message* msg, int id, int value);
void async_allow_rex(int id);
void photo_sensor_callback(ac::Message* msg, int id, int value);
void solenoid_callback(ac::Message* msg, int id, int value);
void get_photo_sensor_callback(ac::Message* msg);
void get_solenoid_callback(ac::Message* msg);
void set_solenoid_callback(ac::Message* msg);
void open_collector_callback(ac::Message* msg);
void open_collector();
void send_message_set_value(int gpio, bool value);
void send_message_activate(int gpio, int timeout);
void send_message_deactivate(int gpio);

// ---------------------------------------------------------------- status messages
void catra_enabled_callback(ac::Message* msg);
void catra_state_callback(ac::Message* msg);
void catra_set_enabled_callback(ac::Message* msg);
void send_message_gpio_update(int gpio, bool enabled);
void send_message_catra_enabled_changed(bool enabled);
