// Private plumbing of the stand-in host, shared by its source files.
#pragma once

#include <sqlite3.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "ac/message.h"
#include "ac/message_enqueuer.h"
#include "standin/bus.h"
#include "standin/database.h"
#include "standin/plugin_host.h"

// Tracks one message handed to the post office until it is destroyed. The
// delivery thread keeps a reference so that it never touches a message that
// a receiver has moved into a queue (the queue may free it at any moment),
// and a synchronous sender waits on it. ~Message signals it, so "done" means
// every handler that will see this message has returned.
struct ac::Message::Completion {
    void signal();
    void wait();
    void mark_transferred();
    bool transferred();
    void mark_received();
    bool received();

    // Set before the message is queued for delivery, never changed afterwards.
    bool sync = false;       // NOLINT(*-non-private-member-variables-in-classes)
    std::thread::id sender;  // NOLINT(*-non-private-member-variables-in-classes)

private:
    std::mutex mutex_;
    std::condition_variable done_cv_;
    bool done_ = false;         // guarded by mutex_
    bool transferred_ = false;  // guarded by mutex_
    bool received_ = false;     // guarded by mutex_
};

struct ac::MessageEnqueuer::State {
    struct Item {
        Message* msg;
        void (*function)(Message*);
    };

    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Item> items;                              // guarded by mutex
    std::map<std::string, void (*)(Message*)> handlers;  // guarded by mutex
    bool stopped = false;                                // guarded by mutex
    std::thread::id serving;  // thread inside process(); guarded by mutex
};

namespace standin {

// The post office, the receivers and the bookkeeping behind wait_idle.
//
// Lock order: queues_mutex before a queue's State::mutex. The other mutexes
// are leaves: nothing else is locked while one of them is held, except that
// observers run under observers_mutex and may send.
struct Bus::Impl {
    struct Receiver {
        const void* owner = nullptr;  // the ac::Plugin that registered it; null for services
        std::function<void(ac::Message&)> deliver;
    };

    // Takes ownership of msg; see ac::PostOffice.
    bool send(ac::Message* msg, bool sync);

    // One receiver per type: a later registration of a type replaces the
    // earlier one, whoever made it.
    void add_receiver(const std::string& type, const void* owner,
                      std::function<void(ac::Message&)> deliver);
    void remove_receivers_of(const void* owner);

    void add_queue(ac::MessageEnqueuer::State* queue);
    void remove_queue(ac::MessageEnqueuer::State* queue);

    // Work in flight: messages waiting for or in delivery, and messages
    // waiting in or being dispatched by a plug-in queue.
    void begin_work();
    void end_work();

    void start_delivery_locked();  // REQUIRES: delivery_mutex held
    void delivery_loop();
    void deliver(ac::Message* msg);

    std::recursive_mutex observers_mutex;
    std::map<int, Observer> observers;  // guarded by observers_mutex
    int next_observer = 1;              // guarded by observers_mutex

    std::mutex receivers_mutex;
    std::map<std::string, Receiver> receivers;  // guarded by receivers_mutex

    std::mutex delivery_mutex;
    std::condition_variable delivery_wake;
    std::deque<ac::Message*> pending;  // guarded by delivery_mutex
    std::thread delivery_thread;       // guarded by delivery_mutex
    std::thread::id delivery_id;       // guarded by delivery_mutex
    bool shutting_down = false;        // guarded by delivery_mutex
    bool shut_down = false;            // guarded by delivery_mutex

    std::mutex queues_mutex;
    std::set<ac::MessageEnqueuer::State*> queues;  // guarded by queues_mutex

    std::mutex idle_mutex;
    std::condition_variable idle_cv;
    long busy = 0;  // guarded by idle_mutex
};

// Adds a line of kind host to the log.
void log_host(const std::string& text);

// Raises ac::ac_exception("<utility> failure") when the configuration's
// "host" "failing" names that utility.
void fail_if_configured(const std::string& utility);

// ---------------------------------------------------------------- database
struct Database::Impl {
    std::mutex mutex;
    sqlite3* db = nullptr;  // guarded by mutex

    // REQUIRES: mutex held. Opens the default database when none is open.
    sqlite3* handle();
    // REQUIRES: mutex held.
    void open_locked(const std::string& path);
    void close_locked();
};

// The database handle with the database lock held for as long as it lives.
class DbSession {
public:
    DbSession();
    sqlite3* db() const { return db_; }
    void exec(const char* sql);

private:
    std::unique_lock<std::mutex> lock_;
    sqlite3* db_;
};

// A prepared statement; every failure raises ac::ac_exception with SQLite's text.
class Statement {
public:
    Statement(sqlite3* db, const char* sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(int index, long long value);
    Statement& bind(int index, const std::string& value);
    // Steps once: true when a row is ready, false when done.
    bool step();
    // Steps to the end of a statement that returns no rows.
    void run();
    int columns() const;
    long long int64(int column) const;
    std::string text(int column) const;
    // The column as SQLite holds it in this row.
    Cell cell(int column) const;

private:
    void check(int rc) const;
    sqlite3* db_;
    sqlite3_stmt* stmt_ = nullptr;
};

[[noreturn]] void raise_sqlite(sqlite3* db);

// ---------------------------------------------------------------- internals
// The host's own way into the internals behind its public classes.
struct Internals {
    using BusCore = Bus::Impl;
    using DatabaseCore = Database::Impl;

    static BusCore& bus() { return *Bus::instance().impl_; }
    static DatabaseCore& database() { return *Database::instance().impl_; }
};

// ---------------------------------------------------------------- plug-in hosts
// Every PluginHost alive, so that end_process can join their run threads.
void register_plugin_host(PluginHost* host);
void unregister_plugin_host(PluginHost* host);
void stop_all_plugin_hosts();

}  // namespace standin
