#include "fuzz_support.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>

#include "catra_internal.h"
#include "plugin_configuration.h"
#include "simulator/controller_pty.h"
#include "standin/standin.h"

namespace catra_fuzz {

namespace {

const timespec kStart{1000, 0};

bool ready = false;
int harness_end = -1;  // the controller's side of the socket pair

[[noreturn]] void fail(const char* target, const std::string& what)
{
    std::fprintf(stderr, "%s: invariant broken: %s\n", target, what.c_str());
    std::abort();
}

void set_configuration(const std::string& device_path)
{
    standin::Config& c = standin::Config::instance();
    simulator::write_plugin_configuration(c, device_path);
    // Beyond the shared configuration: a clockwise entrance, a blocked
    // default, both relays pulsing, and no exit-request buttons (a press would
    // start an exit-request worker, which waits on a thread of its own and
    // releases the turnstile later, outside the input that caused it).
    c.set("catra", "gateway", "clockwise");
    c.set("catra", "operation_mode", "blocked");
    c.set("gpio", "catra_relay_1_enabled", 1);
    c.set("gpio", "catra_relay_2_enabled", 1);
    c.set("identifier", "antipassback_enabled", 0);
    c.set("host", "buttonholes", "");
}

// The tables emptied (their id sequences too) rather than a new database
// opened: opening one per input would cost more than the input itself.
void seed_database()
{
    standin::Database& db = standin::Database::instance();
    db.exec(
        "DELETE FROM access_events; DELETE FROM access_logs; DELETE FROM portals; "
        "DELETE FROM portal_actions; DELETE FROM actions; DELETE FROM action_portals; "
        "DELETE FROM counters; DELETE FROM sqlite_sequence;");
    db.seed(1, static_cast<int>(kStart.tv_sec));
}

std::string device_path;

}  // namespace

void set_up_once()
{
    if (ready)
        return;
    standin::install_services();
    standin::Logs::instance().set_echo(false);
    standin::Clock::instance().set_manual(kStart);

    // The set-up runs once, as on the terminal, against a pseudo-terminal
    // whose controller side is never read: its commands are few and fit.
    static std::unique_ptr<simulator::ControllerPty> line =
        std::make_unique<simulator::ControllerPty>();
    device_path = line->slave_path();
    set_configuration(device_path);
    standin::Database::instance().open(":memory:");
    seed_database();
    std::string error;
    if (!init_catra(&error))
        fail("set-up", "init_catra failed: " + error);

    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        fail("set-up", "socketpair failed");
    if (dup2(ends[0], catra_fd) < 0)
        fail("set-up", "dup2 failed");
    close(ends[0]);
    harness_end = ends[1];

    standin::Bus::instance().wait_idle();
    ready = true;
}

void reset_for_input()
{
    set_configuration(device_path);
    seed_database();
    standin::Clock::instance().set_manual(kStart);

    std::lock_guard<std::mutex> lock(state_mutex);
    current_state = CatraState::BLOCKED;
    default_state = CatraState::BLOCKED;
    catra_enabled = true;
    release_uuid.clear();
    last_event_time = kStart;
    photo_sensor_values.assign(2, false);
    solenoid_values.assign(3, false);
}

void controller_event(const char* bytes, std::size_t size)
{
    while (size > 0) {
        const ssize_t sent = send(harness_end, bytes, size, MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR)
                continue;
            fail("feed", "send to the controller line failed");
        }
        bytes += sent;
        size -= static_cast<std::size_t>(sent);
    }
    try {
        read_catra_event();
    } catch (const std::exception& e) {
        ac::error::log(e.what());
    } catch (...) {
        ac::error::log("unknown exception while handling a controller event");
    }
    drain_controller();
}

void drain_controller()
{
    char buffer[4096];
    while (recv(harness_end, buffer, sizeof buffer, MSG_DONTWAIT) > 0) {
    }
}

void check_invariants(const char* target)
{
    drain_controller();
    if (!state_mutex.try_lock())
        fail(target, "state_mutex is held after the input");
    const int current = current_state;
    const int default_ = default_state;
    const bool closed = catra_fd_closed;
    state_mutex.unlock();
    if (current < 0 || current > 3)
        fail(target, "current_state " + std::to_string(current) + " outside 0..3");
    if (default_ < 0 || default_ > 3)
        fail(target, "default_state " + std::to_string(default_) + " outside 0..3");
    if (closed)
        fail(target, "the controller was closed");
    // Bounded: only a delivery that never ends reaches it, and that is a hang.
    // A message that outlived its delivery is a leak, which the address
    // sanitizer's leak check reports.
    if (!standin::Bus::instance().wait_idle(std::chrono::seconds(20)))
        fail(target, "the bus did not become idle");
}

}  // namespace catra_fuzz
