#include "script/records.h"

#include <functional>
#include <utility>
#include <variant>

#include "ac_dal/ac_dal.h"

namespace terminal {

namespace {

using lines::Json;

// One column's cell as JSON, typed as the database gives it.
Json cell(const standin::Cell& cell)
{
    return std::visit([](const auto& value) { return Json(value); }, cell.value());
}

// What to read of a table: its columns, in the order of `order`; `condition`
// is a WHERE clause's, or empty.
struct Query {
    std::string table;
    std::vector<std::string> columns;
    std::string condition;
    std::string order = "id";
};

// The rows of a query, one object of the columns each; with `newest` above 0
// only the newest that many, newest first.
Json select(standin::Database& database, const Query& query, std::size_t newest = 0)
{
    const std::vector<std::string>& columns = query.columns;
    std::string sql = "SELECT ";
    for (std::size_t i = 0; i < columns.size(); ++i)
        sql += (i == 0 ? "" : ", ") + columns[i];
    sql += " FROM " + query.table;
    if (!query.condition.empty())
        sql += " WHERE " + query.condition;
    sql += " ORDER BY " + query.order;
    if (newest > 0)
        sql += " DESC LIMIT " + std::to_string(newest);
    Json rows = Json::array();
    for (const standin::Row& row : database.query(sql)) {
        Json object = Json::object();
        for (std::size_t i = 0; i < columns.size() && i < row.size(); ++i)
            object[columns[i]] = cell(row[i]);
        rows.push_back(std::move(object));
    }
    return rows;
}

const std::vector<std::string> kAccessLogColumns = {"id",    "user_id", "portal_id", "time",
                                                    "event", "reason",  "uuid"};
const std::vector<std::string> kCounters = {"left_turns", "right_turns", "entrance_turns",
                                            "exit_turns"};

Json counters(standin::Database& database)
{
    Json rows = Json::array();
    for (const std::string& name : kCounters)
        rows.push_back(Json{{"name", name}, {"value", database.counter(name)}});
    return rows;
}

Json portals(standin::Database& database)
{
    Json rows = select(database, {"portals", {"id", "device_id", "name"}, "", "id"});
    for (Json& portal : rows) {
        Json actions = Json::array();
        const Json positions =
            select(database, {"portal_actions",
                              {"action_id"},
                              "portal_id = " + std::to_string(portal["id"].get<long long>()),
                              "position"});
        for (const Json& position : positions)
            actions.push_back(position["action_id"]);
        portal["actions"] = std::move(actions);
    }
    return rows;
}

struct RecordKind {
    std::string name;
    std::function<Json(standin::Database&, std::size_t newest)> rows;
};

// Every kind of record, in the order of their names.
const std::vector<RecordKind>& kinds()
{
    static const std::vector<RecordKind> table = {
        {"access_events",
         [](standin::Database& database, std::size_t newest) {
             return select(database,
                           {"access_events",
                            {"id", "module", "name", "uuid", "device_id", "timestamp"},
                            "",
                            "id"},
                           newest);
         }},
        {"access_logs",
         [](standin::Database& database, std::size_t newest) {
             return select(database, {"access_logs", kAccessLogColumns, "", "id"}, newest);
         }},
        {"counters", [](standin::Database& database, std::size_t) { return counters(database); }},
        {"exit_requests",
         [](standin::Database& database, std::size_t) {
             return select(database,
                           {"access_logs", kAccessLogColumns,
                            "event = " + std::to_string(ac_dal::access_log_event::REX), "id"});
         }},
        {"portals", [](standin::Database& database, std::size_t) { return portals(database); }},
    };
    return table;
}

}  // namespace

const std::vector<std::string>& dump_names()
{
    static const std::vector<std::string> names = [] {
        std::vector<std::string> all;
        for (const RecordKind& kind : kinds())
            all.push_back(kind.name);
        return all;
    }();
    return names;
}

Json dump_records(standin::Database& database, const std::string& what, std::size_t newest)
{
    for (const RecordKind& kind : kinds()) {
        if (kind.name == what)
            return kind.rows(database, newest);
    }
    std::string names;
    for (const std::string& name : dump_names())
        names += (names.empty() ? "" : ", ") + name;
    throw UnknownRecords("no records called " + lines::compact(Json(what)) + " (" + names + ")");
}

}  // namespace terminal
