// Event processing: the turnstile's events and states, the event thread that
// reads controller letters and runs the turnstile state machine, and the
// publication of events and state changes.
#include <pthread.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <sstream>

#include "catra_internal.h"

// ---------------------------------------------------------------- events and states

std::string catra_event_to_string(int event)
{
    switch (event) {
        case CatraEvent::ALWAYS_BLOCKED: return "ALWAYS BLOCKED";
        case CatraEvent::ALWAYS_FREE_LEFT: return "ALWAYS FREE LEFT";
        case CatraEvent::ALWAYS_FREE_RIGHT: return "ALWAYS FREE RIGHT";
        case CatraEvent::ALWAYS_FREE_BOTH: return "ALWAYS FREE BOTH";
        case CatraEvent::FREE_LEFT: return "FREE LEFT";
        case CatraEvent::FREE_RIGHT: return "FREE RIGHT";
        case CatraEvent::FREE_BOTH: return "FREE BOTH";
        case CatraEvent::TURN_LEFT: return "TURN LEFT";
        case CatraEvent::TURN_RIGHT: return "TURN RIGHT";
        case CatraEvent::GIVE_UP: return "GIVE UP";
        case CatraEvent::BLOCKED: return "BLOCKED";
        case CatraEvent::EVENT_READY: return "EVENT_READY";
        case CatraEvent::EVENT_NOT_READY: return "EVENT_NOT_READY";
        default: return "UNKNOWN EVENT";
    }
}

std::string catra_state_to_string(int state)
{
    switch (state) {
        case CatraState::BLOCKED: return "BLOCKED";
        case CatraState::LEFT_LIBERATED: return "LEFT LIBERATED";
        case CatraState::RIGHT_LIBERATED: return "RIGHT LIBERATED";
        case CatraState::BOTH_LIBERATED: return "BOTH LIBERATED";
        default: return "UNKNOWN STATE";
    }
}

// ---------------------------------------------------------------- publication
// Everything below runs with state_mutex held by the caller.

void send_message_catra_event(const int& event)
{
    const time_t now = time(nullptr);
    const std::string name = catra_event_to_string(event);

    int access_event_id = 0;
    if (name == "GIVE UP" || name == "TURN LEFT" || name == "TURN RIGHT") {
        ac_dal::access_event record("catra", name, release_uuid, ac_dal::device::this_id(),
                                    static_cast<int>(now));
        record.create();
        access_event_id = static_cast<int>(record.id());
    }

    ac::Message* msg = new ac::Message("catra_event", 0, nullptr);
    msg->add_int("event", event);
    msg->add_string("event_name", name);
    msg->add_int("timestamp", static_cast<int>(now));
    msg->add_string("uuid", release_uuid);
    msg->add_int("access_event_id", access_event_id);
    ac::PostOffice::send_message(msg);

    if (event == CatraEvent::TURN_LEFT || event == CatraEvent::TURN_RIGHT ||
        event == CatraEvent::GIVE_UP) {
        release_uuid.clear();
    }
}

void set_default_state(const int& state)
{
    if (state == default_state) {
        return;
    }
    default_state = state;
    send_message_catra_default_state_changed(state);
}

void set_current_state(const int& state)
{
    if (state == current_state) {
        return;
    }
    current_state = state;
    send_message_catra_state_changed(state);
}

void send_message_catra_default_state_changed(const int& state)
{
    ac::Message* msg = new ac::Message("catra_default_state_changed", 0, nullptr);
    msg->add_int("default_state", state);
    ac::zorlog::debug("Catra default_state : " + catra_state_to_string(state), __FILE__, __func__,
                      __LINE__);
    ac::PostOffice::send_message(msg);
}

void send_message_catra_state_changed(const int& state)
{
    ac::Message* msg = new ac::Message("catra_state_changed", 0, nullptr);
    msg->add_int("state", state);
    ac::zorlog::debug("Catra state : " + catra_state_to_string(state), __FILE__, __func__,
                      __LINE__);
    ac::PostOffice::send_message(msg);
}

// ---------------------------------------------------------------- state machine

namespace {

bool gateway_is_clockwise()
{
    std::string gateway;
    ac::config::get_param("catra", "gateway", gateway, false);
    return gateway == "clockwise";
}

// REQUIRES: state_mutex held.
void handle_turn(int event)
{
    const bool left = event == CatraEvent::TURN_LEFT;
    bool counted = false;
    switch (current_state) {
        case CatraState::BLOCKED: break;
        case CatraState::LEFT_LIBERATED: counted = left; break;
        case CatraState::RIGHT_LIBERATED: counted = !left; break;
        case CatraState::BOTH_LIBERATED:
            if (default_state != CatraState::BOTH_LIBERATED) {
                update_last_log(event);
            }
            counted = true;
            break;
        default: {
            std::ostringstream text;
            text << "Unknown catra state: " << current_state;
            throw ac::ac_exception(text.str(), true);
        }
    }

    if (!counted) {
        ac::error::log(left ? "ERROR: Cannot turn left  while blocked!!"
                            : "ERROR: Cannot turn right while blocked!!");
    } else if (left) {
        ac_dal::catra_info::inc_left_turns();
        if (gateway_is_clockwise()) {
            ac_dal::catra_info::inc_exit_turns();
        } else {
            ac_dal::catra_info::inc_entrance_turns();
        }
    } else {
        ac_dal::catra_info::inc_right_turns();
        if (gateway_is_clockwise()) {
            ac_dal::catra_info::inc_entrance_turns();
        } else {
            ac_dal::catra_info::inc_exit_turns();
        }
    }
    return_to_default_state();
}

// REQUIRES: state_mutex held.
void handle_give_up()
{
    if (default_state != CatraState::BOTH_LIBERATED && default_state != current_state) {
        create_give_up_log(false);
    }
    return_to_default_state();
}

// Closes the controller device after a failed wait or read and marks it
// closed under state_mutex, so that a command written at the same moment
// either precedes the close or sees the mark and is refused.
// REQUIRES: state_mutex held.
void close_controller()
{
    close(catra_fd);
    catra_fd_closed = true;
}

}  // namespace

// REQUIRES: state_mutex held.
void new_catra_event(int event)
{
    ac::zorlog::debug("Catra event : " + catra_event_to_string(event), __FILE__, __func__,
                      __LINE__);

    if (event == CatraEvent::EVENT_READY || event == CatraEvent::EVENT_NOT_READY) {
        send_message_catra_event(event);
        return;
    }

    const timespec now = ac::util::get_time();
    timespec difference{};
    ac::util::timespec_subtract(&difference, now, last_event_time);
    const int elapsed = ac::util::timespec_to_ms(difference);
    if (event == CatraEvent::BLOCKED && elapsed <= 99) {
        return;
    }
    if (event == CatraEvent::GIVE_UP && elapsed < 500) {
        return;
    }
    last_event_time = now;

    send_message_catra_event(event);

    switch (event) {
        case CatraEvent::ALWAYS_BLOCKED:
            set_default_state(CatraState::BLOCKED);
            set_current_state(CatraState::BLOCKED);
            break;
        case CatraEvent::ALWAYS_FREE_LEFT:
            set_default_state(CatraState::LEFT_LIBERATED);
            set_current_state(CatraState::LEFT_LIBERATED);
            break;
        case CatraEvent::ALWAYS_FREE_RIGHT:
            set_default_state(CatraState::RIGHT_LIBERATED);
            set_current_state(CatraState::RIGHT_LIBERATED);
            break;
        case CatraEvent::ALWAYS_FREE_BOTH:
            set_default_state(CatraState::BOTH_LIBERATED);
            set_current_state(CatraState::BOTH_LIBERATED);
            break;
        case CatraEvent::FREE_LEFT: set_current_state(CatraState::LEFT_LIBERATED); break;
        case CatraEvent::FREE_RIGHT: set_current_state(CatraState::RIGHT_LIBERATED); break;
        case CatraEvent::FREE_BOTH: set_current_state(CatraState::BOTH_LIBERATED); break;
        case CatraEvent::TURN_LEFT:
        case CatraEvent::TURN_RIGHT: handle_turn(event); break;
        case CatraEvent::GIVE_UP: handle_give_up(); break;
        case CatraEvent::BLOCKED: break;
        default: {
            std::ostringstream text;
            text << "Unknown catra event: " << event;
            throw ac::ac_exception(text.str(), true);
        }
    }
}

bool read_catra_event()
{
    std::lock_guard<std::mutex> lock(state_mutex);
    unsigned char buffer[2] = {0, 0};
    const ssize_t count = read(catra_fd, buffer, sizeof buffer);
    if (count == -1) {
        perror("Nao foi possivel ler o GPIO");
        close_controller();
        return false;
    }
    // A read that delivers no byte means the other side has hung up: select
    // keeps reporting such a descriptor readable, so going on would spin. It
    // ends the loop like a failed read; no event is decoded from a byte that
    // was not delivered.
    if (count == 0) {
        fputs("Nao foi possivel ler o GPIO: fim de arquivo\n", stderr);
        close_controller();
        return false;
    }
    new_catra_event(static_cast<int>(buffer[0]) - 0x61);
    return true;
}

void do_catra_run()
{
    // Nothing may leave this thread: an exception here would end the
    // terminal's whole process.
    try {
        ac::util::set_thread_name("catra_run", pthread_self());
    } catch (const std::exception& e) {
        ac::error::log(std::string("catra_run: ") + e.what());
    } catch (...) {
        ac::error::log("catra_run: unknown exception while naming the thread");
    }

    // select() can only watch an open descriptor below FD_SETSIZE; without
    // one there is nothing to read, so the loop says so once and ends.
    if (catra_fd < 0 || catra_fd >= FD_SETSIZE) {
        std::ostringstream text;
        text << "catra_run: controller descriptor " << catra_fd
             << " cannot be watched; turnstile events will not be read";
        ac::error::log(text.str());
        return;
    }

    for (;;) {
        // An exception out of one pass (an unknown event or state, or a host
        // call failing) is written to the error log and the loop goes on with
        // the next event; the scoped lock releases state_mutex on the way.
        try {
            ac::watchdog::keep_alive("catra");

            fd_set read_set;
            FD_ZERO(&read_set);
            FD_SET(catra_fd, &read_set);
            timeval timeout = select_timeval;

            const int ready = select(catra_fd + 1, &read_set, nullptr, nullptr, &timeout);
            if (ready == -1) {
                perror("Erro ao esperar notificacoes");
                std::lock_guard<std::mutex> lock(state_mutex);
                close_controller();
                return;
            }
            if (ready == 0 || !FD_ISSET(catra_fd, &read_set)) {
                continue;
            }

            if (!read_catra_event()) {
                return;
            }
        } catch (const std::exception& e) {
            ac::error::log(e.what());
        } catch (...) {
            ac::error::log("catra_run: unknown exception while handling a controller event");
        }
    }
}
