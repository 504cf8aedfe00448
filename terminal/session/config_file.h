// The terminal's INI configuration, loaded into the host's configuration store.
//
// Each section is a configuration module ("catra", "gpio", "identifier", and
// "host" for the host's own settings); keys before any section belong to no
// module. A key given twice keeps its last value.
#pragma once

#include <string>

#include "standin/config.h"

namespace terminal {

// Empty on success, otherwise what went wrong (the file cannot be read, or
// the line of the first malformed entry).
std::string load_config_file(const std::string& path, standin::Config& config);

}  // namespace terminal
