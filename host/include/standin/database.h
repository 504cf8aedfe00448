// The stand-in host's database: the SQLite store behind ac_dal.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace standin {

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
// Every member may be called from any thread: one statement runs at a time.
class Database {
public:
    // The process's database, never destroyed: plug-in threads may store
    // records until the process ends. Until open is called, the first use
    // opens an empty one in memory.
    static Database& instance();
    // Replaces the open database (":memory:" by default: a new, empty one)
    // and creates the tables when missing.
    void open(const std::string& path = ":memory:");
    void close();
    // Runs SQL; raises ac::ac_exception with SQLite's text on failure.
    void exec(const std::string& sql);
    // The rows of the first statement in sql, every column as text (NULL as
    // ""); raises as exec does.
    Rows query(const std::string& sql);
    // The counter's value; 0 when it has none.
    long long counter(const std::string& name);

    // The records a terminal starts with, each made when missing: portals 1
    // and 2 of this device, the release actions 2 (anticlockwise), 3
    // (clockwise) and 4 (both) on both portals, and, when the access log is
    // empty, two granted accesses (users 100 and 101, at `now` - 20 and `now`
    // - 10) for the plug-in's passage and give-up records.
    void seed(long long device_id, int now);
    // Makes the portal when missing.
    void add_portal(long long id, long long device_id, const std::string& name);

private:
    friend struct Internals;  // the host's own sources
    struct Impl;

    Database();
    std::unique_ptr<Impl> impl_;
};

}  // namespace standin
