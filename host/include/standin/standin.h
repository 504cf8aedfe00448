// Control side of the stand-in terminal host: what tests and the terminal
// program use to set up, drive and observe the host that a plug-in runs in.
// Plug-ins never include this header.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ac/ac.h"

namespace standin {

// ---------------------------------------------------------------- bus
// Every message handed to the post office is shown to the observers in the
// sender's thread at the moment it is sent (so each sender's order is kept),
// then delivered on the host's delivery thread to the receiver of its type:
// a plug-in that registered the type, or a host service. A type has one
// receiver: a later registration of it, by either, replaces the earlier.
class Bus {
public:
    using Observer = std::function<void(const ac::Message& msg, bool sync)>;
    using Service = std::function<void(ac::Message& msg)>;

    static Bus& instance();

    int subscribe(Observer observer);
    void unsubscribe(int id);

    // A host service answers a message type on the delivery thread. It may add
    // fields to msg.reply() and mark it replied; it must never send
    // synchronously from inside the answer.
    void add_service(const std::string& type, Service service);

    // Returns once the delivery thread and every plug-in queue are empty and
    // no handler runs; false on time-out.
    bool wait_idle(std::chrono::milliseconds timeout = std::chrono::seconds(10));

    // Makes every MessageEnqueuer::process return (after the running handler).
    void stop_queues();
    // Stops the delivery thread after it has delivered what was sent.
    void shutdown();

    struct Impl;
    Impl& impl();

private:
    Bus();
    std::unique_ptr<Impl> impl_;
};

// ---------------------------------------------------------------- configuration
// Modules and keys to texts; the module-less keys live under module "".
// The host's own switches are keys of module "host":
//   "online" (0/1), "online_client" ("answer" default, "silent", "no_mode"),
//   "online_client_mode" (int answered as "mode"), "exception_mode" (int),
//   "antipassback_enabled" (0/1), "antipassback_mode" (text),
//   "buttonholes" (comma-separated GPIO numbers of buttonholes 1, 2, ...),
//   "device_model" ("varnek_KTR" makes device_is_varnek_KTR true),
//   "device_id" (this device's id, default 1),
//   "failing" (comma-separated host utilities that raise ac::ac_exception
//   when called: "buzzer" for ac::util::rex_buzz::activateBuzzer,
//   "set_thread_name" for ac::util::set_thread_name).
class Config {
public:
    static Config& instance();
    void set(const std::string& module, const std::string& key, const std::string& value);
    void set(const std::string& module, const std::string& key, long long value);
    void erase(const std::string& module, const std::string& key);
    bool get(const std::string& module, const std::string& key, std::string* value) const;
    void clear();

private:
    Config() = default;
    mutable std::mutex mutex_;
    std::map<std::pair<std::string, std::string>, std::string> values_;
};

// ---------------------------------------------------------------- clock
// The clock behind ac::util::get_time(): the steady clock, or a manual clock
// that only moves when told to.
class Clock {
public:
    static Clock& instance();
    void set_manual(timespec start);
    void set_real();
    void advance_ms(long ms);
    timespec now() const;

private:
    Clock() = default;
    mutable std::mutex mutex_;
    bool manual_ = false;
    timespec manual_now_{};
};

// ---------------------------------------------------------------- logs
struct LogLine {
    enum class Kind { debug, error, host };
    Kind kind = Kind::debug;
    std::string text;
    std::string file;
    std::string function;
    int line = 0;
};

// Every line goes to the observers, in the order the lines were added, and
// (unless echo is off) to standard error. The host's own lines are of kind
// host: the buzzer sounding, a queue served, a handler that threw.
class Logs {
public:
    using Observer = std::function<void(const LogLine&)>;
    static Logs& instance();
    void add(const LogLine& line);
    int subscribe(Observer observer);
    void unsubscribe(int id);
    // Whether each line is also written to standard error (default true).
    void set_echo(bool echo);

private:
    Logs() = default;
    mutable std::mutex mutex_;
    std::map<int, Observer> observers_;
    int next_id_ = 1;
    bool echo_ = true;
};

// ---------------------------------------------------------------- data-access layer
using Rows = std::vector<std::vector<std::string>>;

// The SQLite database behind ac_dal. Tables:
//   access_events(id, module, name, uuid, device_id, timestamp)
//   access_logs(id, user_id, portal_id, time, event, reason, uuid)
//   portals(id, device_id, name)
//   portal_actions(portal_id, position, action_id)
//   actions(id, name)
//   action_portals(action_id, portal_id)
//   counters(name, value): "left_turns", "right_turns", "entrance_turns", "exit_turns"
// A statement that SQLite refuses raises ac::ac_exception with SQLite's text in
// the plug-in's call, so a trigger that raises (for example BEFORE INSERT ON
// access_events) shows the plug-in's path when the database fails.
class Database {
public:
    static Database& instance();
    // Opens (":memory:" by default) and creates the tables when missing.
    void open(const std::string& path = ":memory:");
    void close();
    // Runs SQL; raises ac::ac_exception with SQLite's text on failure.
    void exec(const std::string& sql);
    Rows query(const std::string& sql);
    long long counter(const std::string& name);

    // The records a terminal starts with, each made when missing: portals 1
    // and 2 of this device, the release actions 2 (anticlockwise), 3
    // (clockwise) and 4 (both) on both portals, and, when the access log is
    // empty, two granted accesses (users 100 and 101, at `now` - 20 and `now`
    // - 10) for the plug-in's passage and give-up records.
    void seed(long long device_id, int now);
    // Makes the portal when missing.
    void add_portal(long long id, long long device_id, const std::string& name);

    struct Impl;
    Impl& impl();

private:
    Database();
    std::unique_ptr<Impl> impl_;
};

// ---------------------------------------------------------------- GPIO service and online client
// Installs the online client ("online_client_get_operation_mode") and the GPIO
// service ("gpio_update", "gpio_set_value", "gpio_activate", "gpio_deactivate",
// each marked handled; one without its int fields is logged) on the bus.
// Idempotent.
void install_services();

// ---------------------------------------------------------------- plug-in loading
// Loads a plug-in library the way the terminal does: dlopen, "init", then the
// registered run function on a thread of its own. Exceptions that leave init
// or run are caught and reported to the host log, as a host would.
class PluginHost {
public:
    explicit PluginHost(std::string library_path);
    ~PluginHost();
    PluginHost(const PluginHost&) = delete;
    PluginHost& operator=(const PluginHost&) = delete;
    PluginHost(PluginHost&&) = delete;
    PluginHost& operator=(PluginHost&&) = delete;

    // dlopen and call init; false (with *error set) when init fails, throws
    // or the library cannot be loaded.
    bool init(std::string* error);
    ac::Plugin& plugin();
    // Starts the run function on the run thread; false when none registered.
    bool start();
    // Stops the queues and joins the run thread.
    void stop();
    bool running() const;
    int run_result() const;

private:
    std::string path_;
    void* handle_ = nullptr;
    ac::Plugin plugin_;
    std::thread run_thread_;
    std::shared_ptr<int> result_;
    std::atomic<bool> finished_{false};  // set by the run thread when run has returned
};

// Ends the process without destroying statics. The plug-in has no shutdown
// and its detached threads may still be inside its code, so running static
// destructors under them would race; instead the host's own threads are
// stopped, the leak check runs explicitly, and _exit ends it. A coverage
// build ends through exit(), the only way to each module's coverage writer.
[[noreturn]] void end_process(int code);

}  // namespace standin
