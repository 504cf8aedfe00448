// The host's debug log, error log and watchdog.
#pragma once

#include <string>

namespace ac {
namespace zorlog {
void debug(const std::string& text, const char* file, const char* function, int line);
}  // namespace zorlog

namespace error {
void log(const std::string& text);
}  // namespace error

namespace watchdog {
void keep_alive(const std::string& module);
}  // namespace watchdog
}  // namespace ac
