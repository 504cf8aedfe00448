// Readable forms of raw bytes for failure messages.
#pragma once

#include <string>
#include <vector>

namespace catra_test {

// The bytes in C escape form: printable ASCII as is, NUL as \0, others as \xNN.
std::string escape_bytes(const std::string& bytes);
// A list of byte strings as ["d\0", "f12\0"].
std::string escape_list(const std::vector<std::string>& items);

}  // namespace catra_test
