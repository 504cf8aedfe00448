#include "records.h"

#include <stdexcept>
#include <utility>
#include <variant>
#include <vector>

#include "ac_dal/ac_dal.h"

namespace terminal {

namespace {

using Columns = std::vector<const char*>;

Json value_of(const standin::Cell& cell)
{
    return std::visit([](const auto& value) { return Json(value); }, cell.value());
}

Json rows_of(standin::Database& database, const std::string& sql, const Columns& columns)
{
    Json rows = Json::array();
    for (const standin::Row& row : database.query(sql)) {
        Json object = Json::object();
        for (std::size_t i = 0; i < columns.size() && i < row.size(); ++i)
            object[columns[i]] = value_of(row[i]);
        rows.push_back(std::move(object));
    }
    return rows;
}

const Columns kAccessLogColumns = {"id", "user_id", "portal_id", "time", "event", "reason", "uuid"};

const char* const kAccessLogSelect =
    "SELECT id, user_id, portal_id, time, event, reason, uuid FROM access_logs";

Json portals(standin::Database& database)
{
    Json rows = rows_of(database, "SELECT id, device_id, name FROM portals ORDER BY id",
                        {"id", "device_id", "name"});
    for (Json& portal : rows) {
        Json actions = Json::array();
        const std::string sql = "SELECT action_id FROM portal_actions WHERE portal_id = " +
                                std::to_string(portal["id"].get<long long>()) +
                                " ORDER BY position";
        for (const standin::Row& row : database.query(sql))
            actions.push_back(value_of(row.at(0)));
        portal["actions"] = std::move(actions);
    }
    return rows;
}

}  // namespace

bool is_dump_name(const std::string& what)
{
    return what == "access_events" || what == "access_logs" || what == "exit_requests" ||
           what == "counters" || what == "portals";
}

Json dump_records(standin::Database& database, const std::string& what, std::size_t newest)
{
    const std::string order =
        newest == 0 ? " ORDER BY id" : " ORDER BY id DESC LIMIT " + std::to_string(newest);
    if (what == "access_events") {
        return rows_of(
            database,
            "SELECT id, module, name, uuid, device_id, timestamp FROM access_events" + order,
            {"id", "module", "name", "uuid", "device_id", "timestamp"});
    }
    if (what == "access_logs")
        return rows_of(database, std::string(kAccessLogSelect) + order, kAccessLogColumns);
    if (what == "exit_requests") {
        return rows_of(database,
                       std::string(kAccessLogSelect) + " WHERE event = " +
                           std::to_string(ac_dal::access_log_event::REX) + " ORDER BY id",
                       kAccessLogColumns);
    }
    if (what == "counters") {
        Json rows = Json::array();
        for (const char* name : {"left_turns", "right_turns", "entrance_turns", "exit_turns"})
            rows.push_back(Json{{"name", name}, {"value", database.counter(name)}});
        return rows;
    }
    if (what == "portals")
        return portals(database);
    throw std::invalid_argument("no records called \"" + what + "\"");
}

}  // namespace terminal
