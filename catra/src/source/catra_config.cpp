// Configuration: reaction to configuration changes at run time, and the
// default mode that the operation mode and the "gateway" side call for.
#include "catra_internal.h"

void config_param_set_callback(ac::Message* msg)
{
    std::string module;
    std::string param;
    std::string value;
    msg->get_string("module", &module);
    if (!msg->get_string("param", &param) || !msg->get_string("value", &value)) {
        return;
    }

    if (module == "catra" || module == "identifier") {
        catra_config_set_callback(module, param, value);
    } else if (param == "exception_mode") {
        exception_mode_config_set_callback(value);
    }
}

// Takes its arguments by value: they are copies, independent of the message
// that the queue frees after the handler.
// cppcheck-suppress passedByValue
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void catra_config_set_callback(std::string module, std::string param, std::string value)
{
    std::lock_guard<std::mutex> lock(state_mutex);

    // The first matching row acts; "gateway" further down needs the same
    // action but must not be tried before the anti-passback rows.
    if (module == "identifier" &&
        param == "antipassback_enabled") {  // NOLINT(bugprone-branch-clone)
        set_portal_actions();
    } else if (param == "anti_passback") {
        ac::config_util::antipassback_enabled(
            ac::config_util::get_int("catra", "anti_passback", false) != 0);
    } else if (param == "daily_reset") {
        if (ac::config_util::get_int("catra", "daily_reset", false) != 0) {
            ac::config_util::antipassback_mode("daily_catra");
        } else {
            ac::config_util::antipassback_mode("none");
        }
    } else if (param == "gateway") {
        set_portal_actions();
    } else if (param == "operation_mode") {
        refresh_default_state(value);
    }
}

// Takes its argument by value, like catra_config_set_callback.
// cppcheck-suppress passedByValue
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void exception_mode_config_set_callback(std::string value)
{
    std::lock_guard<std::mutex> lock(state_mutex);

    const int mode = ac::config_util::str_to_exception_mode(value);
    if (mode == 1) {
        do_execute_command("always");
    } else if (mode == 2) {
        do_execute_command("idle");
    } else {
        std::string operation_mode;
        ac::config::get_param("catra", "operation_mode", operation_mode, false);
        refresh_default_state(operation_mode);
    }
}

// REQUIRES: state_mutex held by the caller, or start-up before any thread.
void refresh_default_state(const std::string& operation_mode)
{
    std::string gateway;
    ac::config::get_param("catra", "gateway", gateway, false);
    const bool clockwise = gateway == "clockwise";

    std::string command = "idle";
    if (operation_mode == "entrance_open") {
        command = clockwise ? "alwaysclockwise" : "alwaysanticlockwise";
    } else if (operation_mode == "exit_open") {
        command = clockwise ? "alwaysanticlockwise" : "alwaysclockwise";
    } else if (operation_mode == "both_open") {
        command = "always";
    }
    do_execute_command(command);
}
