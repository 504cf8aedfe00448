// The stand-in host's database: the SQLite store behind ac_dal.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace standin {

// One value of a row as SQLite gives it: NULL, an integer, a real or a text.
// Made implicitly from each, so that rows read as they print:
// {1, "catra", nullptr}. Cells of different kinds are never equal.
class Cell {
public:
    using Value = std::variant<std::nullptr_t, long long, double, std::string>;

    // cppcheck-suppress noExplicitConstructor
    Cell(std::nullptr_t = nullptr) {}
    template <typename Integer, typename = std::enable_if_t<std::is_integral_v<Integer> &&
                                                            !std::is_same_v<Integer, bool>>>
    // cppcheck-suppress noExplicitConstructor
    Cell(Integer integer) : value_(static_cast<long long>(integer))
    {
    }
    // cppcheck-suppress noExplicitConstructor
    Cell(double real) : value_(real) {}
    // cppcheck-suppress noExplicitConstructor
    Cell(const char* text) : value_(std::string(text)) {}
    // cppcheck-suppress noExplicitConstructor
    Cell(std::string text) : value_(std::move(text)) {}

    const Value& value() const { return value_; }

    friend bool operator==(const Cell& a, const Cell& b) { return a.value_ == b.value_; }
    friend bool operator!=(const Cell& a, const Cell& b) { return !(a == b); }

private:
    Value value_;
};

// NULL, the number, or the text in double quotes.
std::ostream& operator<<(std::ostream& out, const Cell& cell);

using Row = std::vector<Cell>;
using Rows = std::vector<Row>;

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
    // The rows of the first statement in sql; raises as exec does.
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
