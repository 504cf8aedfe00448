// How a script's waits and expectations match output lines: a pattern is a
// JSON value that a line must contain; a failed expectation shows the lines
// nearest to its pattern.
#pragma once

#include <vector>

#include "lines/line.h"

namespace terminal {

using lines::Json;

// True when `line` holds what `pattern` holds: an object every key of the
// pattern object with a value that contains the pattern's value, an array an
// element containing each element of the pattern array, any other value an
// equal one (of the same type: the text "1" is not the number 1). So
// {"bus": "catra_event", "fields": [["event", 5]]} matches a "catra_event"
// line whose fields include ["event", 5].
bool contains(const Json& line, const Json& pattern);

// How much of the pattern a line holds: the number of the pattern's values
// (leaves) found in it where contains() would look. A line that contains the
// pattern scores the pattern's number of leaves.
int nearness(const Json& line, const Json& pattern);

// For the report of a failed expectation: the lines printed since the last
// action, nearest the pattern first (in the order printed among equals), at
// most `shown` of them, each on a line of its own after "; the nearest of the
// N lines printed since the last action:". Lines of the pattern's kind (its
// first key and value, as "bus": "catra_event") come before the others.
std::string nearest_lines(const std::vector<Json>& printed, const Json& pattern,
                          std::size_t shown = 5);

}  // namespace terminal
