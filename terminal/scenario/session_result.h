// A session's result: what catra-terminal --result writes when a session
// ends, and what --check reads of each scenario it ran, as one JSON object.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace terminal {

struct SessionResult {
    int expectations = 0;  // expect and expect_none lines run
    int met = 0;
    int bad_lines = 0;  // lines not run: not a command, or refused
    bool init_failed = false;
    bool passed = false;
    // Why it did not pass, in the order reported (a line's errors with where
    // it stands, a failure to start); may hold notes when it passed.
    std::vector<std::string> reasons;
};

// The names of the result's members, in order, as the file holds them.
const std::vector<std::string>& session_result_keys();

// Writes the result to the file; false when it cannot be written.
bool write_session_result(const std::string& path, const SessionResult& result);
// The result a file holds; nothing when it holds none (empty, not JSON, or
// not a result).
std::optional<SessionResult> read_session_result(const std::string& path);

}  // namespace terminal
