// Controller link: the controller device's set-up, the command texts and the
// one function through which every command is written, and the timed release
// texts with their relay pulses.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <sstream>

#include "catra_internal.h"

namespace {

// The system's text for an errno value, as strerror gives it; safe to call
// from any thread.
std::string error_text(int error)
{
    char buffer[128];
    return strerror_r(error, buffer, sizeof buffer);
}

// Writes one command text with its terminating NUL in a single write.
// REQUIRES: state_mutex held by the caller, or start-up before any thread.
// Once the event loop has closed the device, the descriptor number may belong
// to another file of the host process by now: the write is refused with EBADF
// instead, and the caller reports it as for any failed write.
ssize_t write_command(const std::string& text)
{
    if (catra_fd_closed) {
        errno = EBADF;
        return -1;
    }
    return write(catra_fd, text.c_str(), text.size() + 1);
}

// ---------------------------------------------------------------- release texts

void release_direction_relays(const std::string& wanted_direction)
{
    std::string relay_1_direction;
    std::string relay_2_direction;
    ac::config::get_param("gpio", "catra_relay_1_enable_direction", relay_1_direction, false);
    ac::config::get_param("gpio", "catra_relay_2_enable_direction", relay_2_direction, false);

    if (ac::config_util::get_int("gpio", "catra_relay_1_enabled", false) != 0 &&
        relay_1_direction == wanted_direction) {
        activate_relay(ac::config_util::get_int("gpio", "catra_relay_1_gpio", true));
    }
    if (!ac::util::device_is_varnek_KTR()) {
        if (ac::config_util::get_int("gpio", "catra_relay_2_enabled", false) != 0 &&
            relay_2_direction == wanted_direction) {
            activate_relay(ac::config_util::get_int("gpio", "catra_relay_2_gpio", true));
        }
    }
}

std::string build_clockwise_command()
{
    release_direction_relays("right");
    return build_timed_command("r");
}

std::string build_anticlockwise_command()
{
    release_direction_relays("left");
    return build_timed_command("l");
}

// Pulses every enabled relay, whatever its direction.
std::string build_both_command()
{
    if (ac::config_util::get_int("gpio", "catra_relay_1_enabled", false) != 0) {
        activate_relay(ac::config_util::get_int("gpio", "catra_relay_1_gpio", true));
    }
    if (!ac::util::device_is_varnek_KTR()) {
        if (ac::config_util::get_int("gpio", "catra_relay_2_enabled", false) != 0) {
            activate_relay(ac::config_util::get_int("gpio", "catra_relay_2_gpio", true));
        }
    }
    return build_timed_command("b");
}

std::string build_always_command()
{
    return "ab";
}
std::string build_always_clockwise_command()
{
    return "ar";
}
std::string build_always_anticlockwise_command()
{
    return "al";
}
std::string build_idle_command()
{
    return "i";
}

}  // namespace

std::string build_timed_command(const std::string& code)
{
    const int release_time = ac::config_util::get_int("catra_timeout", false);
    char digits[16];
    std::snprintf(digits, sizeof digits, "%d", release_time);
    return code + digits;
}

void activate_relay(int gpio)
{
    const int relay_timeout = ac::config_util::get_int("catra", "relay_timeout", false);
    if (relay_timeout == 0) {
        return;
    }
    send_message_deactivate(gpio);

    // "timeout" comes before "gpio" here, unlike send_message_activate.
    ac::Message* activate = new ac::Message("gpio_activate", 0, nullptr);
    activate->add_int("timeout", relay_timeout);
    activate->add_int("gpio", gpio);
    ac::PostOffice::send_message(activate);
}

// ---------------------------------------------------------------- commands

// REQUIRES: state_mutex held by the caller, or start-up before any thread.
void do_execute_command(const std::string& name)
{
    static const std::map<std::string, std::function<std::string()>> command_table = {
        {"clockwise", build_clockwise_command},
        {"anticlockwise", build_anticlockwise_command},
        {"both", build_both_command},
        {"always", build_always_command},
        {"alwaysclockwise", build_always_clockwise_command},
        {"alwaysanticlockwise", build_always_anticlockwise_command},
        {"idle", build_idle_command},
    };

    const auto entry = command_table.find(name);
    if (entry == command_table.end()) {
        throw ac::ac_exception("unknown catra allow: " + name, true);
    }
    const std::string text = entry->second();

    std::ostringstream line;
    line << "CATRA command: " << text << " no fd: " << catra_fd;
    ac::zorlog::debug(line.str(), __FILE__, __func__, __LINE__);

    if (write_command(text) == -1) {
        perror("Nao foi possivel liberar a CATRACA");
    }
}

bool configure_catra(const char* code, const std::string& value)
{
    const std::string text = code + value;
    if (write_command(text) == -1) {
        // The caller reports strerror(errno) in its own words: keep errno.
        const int write_errno = errno;
        perror(("Nao foi possivel configurar a catraca com o comando: " + text).c_str());
        errno = write_errno;
        return false;
    }
    return true;
}

bool disable_catra(std::string* error)
{
    if (write_command("d") != -1 || errno == EINVAL) {
        return true;
    }
    const int write_errno = errno;
    perror("Nao foi possivel desabilitar o Catra");
    if (error != nullptr) {
        *error = std::string("Unable to disable: ") + error_text(write_errno);
    }
    return false;
}

// REQUIRES: state_mutex held by the caller.
void return_to_default_state()
{
    switch (default_state) {
        case CatraState::LEFT_LIBERATED:
            if (current_state == CatraState::RIGHT_LIBERATED ||
                current_state == CatraState::BOTH_LIBERATED) {
                do_execute_command("alwaysanticlockwise");
            } else {
                set_current_state(CatraState::LEFT_LIBERATED);
            }
            break;
        case CatraState::RIGHT_LIBERATED:
            if (current_state == CatraState::LEFT_LIBERATED ||
                current_state == CatraState::BOTH_LIBERATED) {
                do_execute_command("alwaysclockwise");
            } else {
                set_current_state(CatraState::RIGHT_LIBERATED);
            }
            break;
        case CatraState::BOTH_LIBERATED:
            if (current_state != CatraState::BOTH_LIBERATED) {
                do_execute_command("always");
            } else {
                set_current_state(CatraState::BOTH_LIBERATED);
            }
            break;
        case CatraState::BLOCKED:
            if (current_state != CatraState::BLOCKED) {
                do_execute_command("idle");
            } else {
                set_current_state(CatraState::BLOCKED);
            }
            break;
        default: set_current_state(default_state); break;
    }
}

// ---------------------------------------------------------------- set-up

namespace {

// Assigns one controller pin; on failure fills *error with prefix + reason.
bool assign_pin(const char* code, const std::string& value, const char* prefix, std::string* error)
{
    if (configure_catra(code, value)) {
        return true;
    }
    *error = std::string(prefix) + error_text(errno);
    return false;
}

}  // namespace

// Runs once from init, alone, before any thread of the plug-in exists.
bool init_catra(std::string* error)
{
    std::string device_path;
    std::string fi1;
    std::string fi2;
    std::string sol1;
    std::string sol2;
    int select_timeout = 0;
    try {
        ac::config::get_param("catra", "device_path", device_path, true);
        ac::config::get_param("catra", "fi1", fi1, true);
        ac::config::get_param("catra", "fi2", fi2, true);
        ac::config::get_param("catra", "sol1", sol1, true);
        ac::config::get_param("catra", "sol2", sol2, true);
        select_timeout = ac::config_util::get_int("catra", "select_timeout", true);
    } catch (const ac::ac_exception& e) {
        *error = e.what();
        return false;
    }

    select_timeval.tv_sec = select_timeout / 1000;
    select_timeval.tv_usec = static_cast<suseconds_t>(select_timeout % 1000) * 1000;

    catra_fd = open(device_path.c_str(), O_RDWR);
    if (catra_fd == -1) {
        *error = "Unable to open " + device_path + ": " + error_text(errno);
        return false;
    }

    if (!disable_catra(error)) {
        return false;
    }
    if (!assign_pin("f", fi1, "Unable to configure pin fi1: ", error) ||
        !assign_pin("g", fi2, "Unable to configure pin fi2: ", error) ||
        !assign_pin("s", sol1, "Unable to configure pin sol1: ", error) ||
        !assign_pin("t", sol2, "Unable to configure pin sol2: ", error)) {
        return false;
    }
    if (!configure_catra("e", "")) {
        *error = std::string("Unable to enable: ") + error_text(errno);
        return false;
    }

    catra_enabled = true;
    current_state = CatraState::BLOCKED;
    default_state = CatraState::BLOCKED;

    last_event_time = ac::util::get_time();

    photo_sensor_values.resize(2, false);
    photo_sensor_gpios.resize(2, -1);
    photo_sensor_gpios[0] = ac::config_util::get_int("catra", "fi1_gpio", true);
    photo_sensor_gpios[1] = ac::config_util::get_int("catra", "fi2_gpio", true);

    solenoid_values.resize(3, false);
    solenoid_gpios.resize(3, -1);
    solenoid_gpios[0] = ac::config_util::get_int("catra", "sol1_gpio", true);
    solenoid_gpios[1] = ac::config_util::get_int("catra", "sol2_gpio", true);

    collector_gpio = ac::config_util::get_int("collector_gpio", true);
    solenoid_gpios[2] = collector_gpio;

    set_portal_actions();
    return true;
}
