// The database records that the terminal prints on request.
#pragma once

#include <cstddef>
#include <string>

#include "output.h"
#include "standin/standin.h"

namespace terminal {

// The names that dump_records knows.
bool is_dump_name(const std::string& what);

// The rows of one kind of record, each an object of its columns:
//   "access_events"  id, module, name, uuid, device_id, timestamp
//   "access_logs"    id, user_id, portal_id, time, event, reason, uuid
//   "exit_requests"  the access-log records of exit requests (event 12)
//   "counters"       name, value for the four turn counters
//   "portals"        id, device_id, name, actions (action ids in order)
// With `newest` above 0, access events and access-log records are only the
// newest that many, newest first.
Json dump_records(standin::Database& database, const std::string& what, std::size_t newest = 0);

}  // namespace terminal
