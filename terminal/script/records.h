// The database records that the terminal prints on request (the dump
// command) and that the live view shows.
//   "access_events"  id, module, name, uuid, device_id, timestamp
//   "access_logs"    id, user_id, portal_id, time, event, reason, uuid
//   "counters"       name, value for the four turn counters
//   "exit_requests"  the access-log records of exit requests
//   "portals"        id, device_id, name, actions (action ids in order)
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "lines/line.h"
#include "standin/database.h"

namespace terminal {

// The names of the records, in order.
const std::vector<std::string>& dump_names();

// No records go by that name; the text says so and lists the names.
struct UnknownRecords : std::invalid_argument {
    using std::invalid_argument::invalid_argument;
};

// The rows of one kind of record, each an object of its columns, oldest
// first. With `newest` above 0, access events and access-log records are
// only the newest that many, newest first. Throws UnknownRecords, and
// ac::ac_exception when the database fails.
lines::Json dump_records(standin::Database& database, const std::string& what,
                         std::size_t newest = 0);

}  // namespace terminal
