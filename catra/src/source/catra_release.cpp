// Access release and logging: the release request, the release record, and
// the access-log bookkeeping for passages, give-ups and portal actions.
#include <ctime>
#include <list>
#include <map>
#include <sstream>
#include <stdexcept>

#include "catra_internal.h"

// ---------------------------------------------------------------- release request

// REQUIRES: state_mutex held.
void liberate_catra(const std::string& direction, int reason)
{
    const bool is_release =
        direction == "anticlockwise" || direction == "clockwise" || direction == "both";

    if (default_state == CatraState::BOTH_LIBERATED && is_release) {
        return;
    }

    // A release that adds to one already freed, or made while a permanent
    // free passage is the default, frees both sides.
    const bool widen =
        (current_state == CatraState::LEFT_LIBERATED && direction == "clockwise") ||
        (current_state == CatraState::RIGHT_LIBERATED && direction == "anticlockwise") ||
        (default_state != CatraState::BLOCKED && is_release);
    const std::string command = widen ? "both" : direction;

    if (is_release) {
        log_catra_liberated(direction, reason);
        if (default_state != current_state) {
            create_give_up_log(true);
            return_to_default_state();
        }
    }

    do_execute_command(command);
}

void liberate_catra_callback(ac::Message* msg)
{
    std::lock_guard<std::mutex> lock(state_mutex);
    if (!catra_enabled) {
        return;
    }

    std::string direction;
    if (!msg->get_string("catra_direction", &direction)) {
        throw ac::ac_exception("catra allow not found!", true);
    }
    msg->get_string("uuid", &release_uuid);
    ac::zorlog::debug("UUID: " + release_uuid, __FILE__, __func__, __LINE__);

    int reason = 0;
    msg->get_int("catra_reason", &reason);

    try {
        liberate_catra(direction, reason);
    } catch (const ac::ac_exception& e) {
        ac::zorlog::debug(e.what(), __FILE__, __func__, __LINE__);
    }
}

// ---------------------------------------------------------------- passage log updates
// Everything below runs with state_mutex held by the caller.

namespace {

std::string read_gateway()
{
    std::string gateway;
    ac::config::get_param("catra", "gateway", gateway, false);
    return gateway;
}

}  // namespace

bool online_operation_mode_is_1()
{
    if (!ac::config_util::online()) {
        return false;
    }
    ac::MessageReply reply;
    ac::Message* request = new ac::Message("online_client_get_operation_mode", 0, nullptr);
    request->set_reply(&reply);
    ac::PostOffice::send_message_sync(request);

    if (!reply.replied()) {
        throw ac::ac_exception("Message online_client_get_operation_mode not replied", true);
    }
    int mode = 0;
    if (!reply.get_int("mode", &mode)) {
        throw ac::ac_exception("Wrong parameters in reply", true);
    }
    return mode == 1;
}

void update_last_log(const int& event)
{
    if (ac::config_util::online() && !online_operation_mode_is_1()) {
        return;
    }
    // A missing record or a failed save is dropped: the turn goes on as if
    // the record had been completed.
    try {
        ac_dal::access_log record = ac_dal::access_log::get_last_log(true);

        const bool clockwise = read_gateway() == "clockwise";
        const bool right = event == CatraEvent::TURN_RIGHT;
        const long long portal = (right == clockwise) ? 1 : 2;

        record.portal_id(portal);
        record.time(static_cast<int>(time(nullptr)));

        std::ostringstream text;
        text << "portal_id: " << record.portal_id() << ", user_id: " << record.user_id();
        ac::zorlog::debug(text.str(), __FILE__, __func__, __LINE__);

        record.save();
    } catch (const ac::ac_exception&) {
    }
}

void create_give_up_log(bool before_last)
{
    if (!ac::config_util::online() || online_operation_mode_is_1()) {
        create_give_up_log_local(before_last);
    }
}

void create_give_up_log_local(bool before_last)
{
    // A missing record or a failed save is dropped, as for update_last_log.
    try {
        ac_dal::access_log record = before_last ? ac_dal::access_log::get_before_last_log(true)
                                                : ac_dal::access_log::get_last_log(true);

        std::ostringstream text;
        text << "Portal_id: " << record.portal_id() << ", user_id: " << record.user_id();
        ac::zorlog::debug(text.str(), __FILE__, __func__, __LINE__);

        record.event(static_cast<ac_dal::access_log_event::event>(13));
        record.time(static_cast<int>(time(nullptr)));
        record.save();
    } catch (const ac::ac_exception&) {
    }
}

void set_portal_actions()
{
    const bool clockwise = read_gateway() == "clockwise";
    const bool antipassback = ac::config_util::antipassback_enabled();

    long long portal_1_action = 4;
    long long portal_2_action = 4;
    if (antipassback) {
        portal_1_action = clockwise ? 3 : 2;
        portal_2_action = clockwise ? 2 : 3;
    }

    ac_dal::portal::load(1).add_actions({portal_1_action});
    ac_dal::portal::load(2).add_actions({portal_2_action});
}

// ---------------------------------------------------------------- release log

// REQUIRES: state_mutex held.
void log_catra_liberated(const std::string& direction, int reason)
{
    static const std::map<int, std::string> release_reason_table = {
        {0, "UNKNOWN"},
        {1, "AUTHORIZED"},
        {2, "REX"},
        {3, "WEB"},
    };

    if (reason == ac::util::AUTHORIZED) {
        return;
    }
    if (ac::config_util::get_int("identifier", "verbose_logging", false) == 0) {
        return;
    }

    std::string reason_name;
    try {
        reason_name = release_reason_table.at(reason);
    } catch (const std::out_of_range&) {
        // A reason outside the table has no name: the checked look-up fails
        // before the debug line, so neither the line nor the record is
        // written. The release itself goes on; the terminal stays up.
        return;
    }
    ac::zorlog::debug("Allow " + direction + "! Reason: " + reason_name, __FILE__, __func__,
                      __LINE__);

    long long action_id = 2;
    if (direction == "clockwise") {
        action_id = 3;
    } else if (direction == "both") {
        action_id = 4;
    }

    unsigned long long portal_id = 0;
    {
        ac_dal::action action;
        action.load(action_id);
        const std::list<ac_dal::portal> portals = action.device_portals(ac_dal::device::this_id());
        if (portals.empty()) {
            // Without a portal of this device there is nothing to write the
            // exit-request record for; the release itself goes on.
            std::ostringstream missing;
            missing << "No portal of this device for action " << action_id
                    << ": exit-request record not written";
            ac::zorlog::debug(missing.str(), __FILE__, __func__, __LINE__);
            return;
        }
        portal_id = static_cast<unsigned long long>(portals.front().id());
    }

    ac::util::create_log_rex(portal_id, static_cast<ac::util::reason_to_open>(reason), 0);
}
