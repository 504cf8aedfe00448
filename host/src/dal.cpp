// The data-access layer: records of the host's database, as a plug-in sees them.
#include "ac_dal/ac_dal.h"

#include <ctime>

#include "ac/ac_exception.h"
#include "ac/config.h"
#include "ac/util.h"
#include "host_internal.h"

using standin::DbSession;
using standin::Statement;

namespace {

[[noreturn]] void raise(const std::string& text)
{
    throw ac::ac_exception(text, true);
}

}  // namespace

namespace ac_dal {

ac_dao::~ac_dao() = default;

// ---------------------------------------------------------------- access_event
access_event::access_event(std::string module, std::string name, std::string uuid,
                           long long device_id, int timestamp)
    : module_(std::move(module)),
      name_(std::move(name)),
      uuid_(std::move(uuid)),
      device_id_(device_id),
      timestamp_(timestamp)
{
}

void access_event::create()
{
    DbSession session;
    Statement(session.db(),
              "INSERT INTO access_events(module, name, uuid, device_id, timestamp) "
              "VALUES(?, ?, ?, ?, ?)")
        .bind(1, module_)
        .bind(2, name_)
        .bind(3, uuid_)
        .bind(4, device_id_)
        .bind(5, timestamp_)
        .run();
    id_ = sqlite3_last_insert_rowid(session.db());
}

void access_event::save()
{
    DbSession session;
    Statement statement(session.db(),
                        "UPDATE access_events SET module = ?, name = ?, uuid = ?, device_id = ?, "
                        "timestamp = ? WHERE id = ?");
    statement.bind(1, module_).bind(2, name_).bind(3, uuid_).bind(4, device_id_);
    statement.bind(5, timestamp_).bind(6, id_).run();
    if (sqlite3_changes(session.db()) == 0)
        raise("no access event " + std::to_string(id_));
}

long long access_event::id() const
{
    return id_;
}

// ---------------------------------------------------------------- access_log
namespace {

const char* const kSelectLog =
    "SELECT id, portal_id, user_id, time, event, reason FROM access_logs "
    "ORDER BY id DESC LIMIT 1 OFFSET ?";

// Fills log from the newest record by id (offset 0) or the one before it
// (offset 1); returns the record's id.
long long fetch_log(int offset, access_log& log)
{
    DbSession session;
    Statement statement(session.db(), kSelectLog);
    statement.bind(1, offset);
    if (!statement.step())
        raise(offset == 0 ? "no access log" : "no access log before the last");
    log.portal_id(statement.int64(1));
    log.user_id(statement.int64(2));
    log.time(static_cast<int>(statement.int64(3)));
    log.event(static_cast<access_log_event::event>(statement.int64(4)));
    log.reason(static_cast<int>(statement.int64(5)));
    return statement.int64(0);
}

}  // namespace

access_log::access_log() = default;

// The flag is not looked at: a missing record always raises.
access_log access_log::get_last_log(bool)
{
    access_log log;
    log.id_ = fetch_log(0, log);
    return log;
}

access_log access_log::get_before_last_log(bool)
{
    access_log log;
    log.id_ = fetch_log(1, log);
    return log;
}

void access_log::create()
{
    DbSession session;
    Statement(session.db(),
              "INSERT INTO access_logs(user_id, portal_id, time, event, reason) "
              "VALUES(?, ?, ?, ?, ?)")
        .bind(1, user_id_)
        .bind(2, portal_id_)
        .bind(3, time_)
        .bind(4, event_)
        .bind(5, reason_)
        .run();
    id_ = sqlite3_last_insert_rowid(session.db());
}

void access_log::save()
{
    DbSession session;
    Statement(session.db(),
              "UPDATE access_logs SET user_id = ?, portal_id = ?, time = ?, event = ?, "
              "reason = ? WHERE id = ?")
        .bind(1, user_id_)
        .bind(2, portal_id_)
        .bind(3, time_)
        .bind(4, event_)
        .bind(5, reason_)
        .bind(6, id_)
        .run();
    if (sqlite3_changes(session.db()) == 0)
        raise("no access log " + std::to_string(id_));
}

long long access_log::id() const
{
    return id_;
}
void access_log::portal_id(long long portal)
{
    portal_id_ = portal;
}
long long access_log::portal_id() const
{
    return portal_id_;
}
void access_log::user_id(long long user)
{
    user_id_ = user;
}
long long access_log::user_id() const
{
    return user_id_;
}
void access_log::time(int seconds)
{
    time_ = seconds;
}
int access_log::time() const
{
    return time_;
}
void access_log::event(access_log_event::event value)
{
    event_ = value;
}
access_log_event::event access_log::event() const
{
    return event_;
}
void access_log::reason(int value)
{
    reason_ = value;
}
int access_log::reason() const
{
    return reason_;
}

// ---------------------------------------------------------------- portal
portal::portal() = default;

portal portal::load(long long id)
{
    DbSession session;
    Statement statement(session.db(), "SELECT id, device_id FROM portals WHERE id = ?");
    statement.bind(1, id);
    if (!statement.step())
        raise("no portal " + std::to_string(id));
    portal loaded;
    loaded.id_ = statement.int64(0);
    loaded.device_id_ = statement.int64(1);
    return loaded;
}

long long portal::id() const
{
    return id_;
}

long long portal::device_id() const
{
    return device_id_;
}

// Replaces the portal's actions with the list, in its order, as one transaction.
void portal::add_actions(const std::list<long long>& actions) const
{
    DbSession session;
    session.exec("BEGIN");
    try {
        Statement(session.db(), "DELETE FROM portal_actions WHERE portal_id = ?")
            .bind(1, id_)
            .run();
        long long position = 0;
        for (long long action_id : actions) {
            Statement(session.db(),
                      "INSERT INTO portal_actions(portal_id, position, action_id) VALUES(?, ?, ?)")
                .bind(1, id_)
                .bind(2, position++)
                .bind(3, action_id)
                .run();
        }
        session.exec("COMMIT");
    } catch (...) {
        sqlite3_exec(session.db(), "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
}

// ---------------------------------------------------------------- action
action::action() = default;

bool action::load(long long id)
{
    DbSession session;
    Statement statement(session.db(), "SELECT id FROM actions WHERE id = ?");
    statement.bind(1, id);
    loaded_ = statement.step();
    id_ = loaded_ ? id : 0;
    return loaded_;
}

long long action::id() const
{
    return id_;
}

// Ordered by portal id; empty for an action that was not loaded.
std::list<portal> action::device_portals(long long device_id) const
{
    std::list<portal> portals;
    if (!loaded_)
        return portals;
    DbSession session;
    Statement statement(session.db(),
                        "SELECT p.id, p.device_id FROM portals p "
                        "JOIN action_portals ap ON ap.portal_id = p.id "
                        "WHERE ap.action_id = ? AND p.device_id = ? ORDER BY p.id");
    statement.bind(1, id_).bind(2, device_id);
    while (statement.step()) {
        portal found;
        found.id_ = statement.int64(0);
        found.device_id_ = statement.int64(1);
        portals.push_back(found);
    }
    return portals;
}

// ---------------------------------------------------------------- device
namespace device {

// The host key "device_id"; 1 when it is missing or not a number.
long long this_id()
{
    std::string text;
    if (!ac::config::get_param("host", "device_id", text, false))
        return 1;
    try {
        size_t used = 0;
        const long long id = std::stoll(text, &used);
        return used == text.size() ? id : 1;
    } catch (const std::exception&) {
        return 1;
    }
}

}  // namespace device

// ---------------------------------------------------------------- catra_info
namespace catra_info {
namespace {

void increment(const char* counter)
{
    DbSession session;
    Statement(session.db(),
              "INSERT INTO counters(name, value) VALUES(?, 1) "
              "ON CONFLICT(name) DO UPDATE SET value = value + 1")
        .bind(1, std::string(counter))
        .run();
}

}  // namespace

void inc_left_turns()
{
    increment("left_turns");
}
void inc_right_turns()
{
    increment("right_turns");
}
void inc_entrance_turns()
{
    increment("entrance_turns");
}
void inc_exit_turns()
{
    increment("exit_turns");
}

}  // namespace catra_info
}  // namespace ac_dal

namespace ac {
namespace util {

// The exit-request record: an access-log row with event REX, written at the
// wall-clock time of the call. The third argument is the record's user.
void create_log_rex(unsigned long long portal_id, reason_to_open reason, long long user_id)
{
    DbSession session;
    Statement(session.db(),
              "INSERT INTO access_logs(user_id, portal_id, time, event, reason) "
              "VALUES(?, ?, ?, ?, ?)")
        .bind(1, user_id)
        .bind(2, static_cast<long long>(portal_id))
        .bind(3, static_cast<long long>(std::time(nullptr)))
        .bind(4, static_cast<long long>(ac_dal::access_log_event::REX))
        .bind(5, static_cast<long long>(reason))
        .run();
}

}  // namespace util
}  // namespace ac
